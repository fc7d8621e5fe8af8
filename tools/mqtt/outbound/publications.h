// The messages to the broker: which goes next, whether its rule lets it go, and what becomes of it.
// It knows nothing of the connection but whether it stands.
#pragma once

#include "base/counters.h"
#include "discovery/announcements.h"
#include "messages/message.h"
#include "outbound/acknowledged.h"
#include "outbound/schedule.h"
#include "outbound/shared_tags.h"
#include "outbound/unacknowledged.h"
#include "store/local_writer.h"
#include "topics/topic_table.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kp::mqtt {

class Publications {
  public:
    // `writer` may be null, where nothing comes from the broker.
    Publications(const Configuration &configuration, const StoreReader &reader, LocalWriter *writer,
                 StateFile &state, std::string origin, PendingNames &pending, TopicTable &topics,
                 SharedTags &shared, Counters &counters);

    // To be called when there is a connection. If the broker has kept what it had, only what
    // changed meanwhile is sent, else every topic once; SharedTags decides about those of a shared
    // tree. What is to be sent then is the burst, which has a rate of its own.
    void connected(bool kept, Clock::time_point now);

    // To be called when the connection is lost: what the broker has not acknowledged counts as
    // changed again.
    void connection_lost(Clock::time_point now);

    // To be called when the rules have changed: what they hold back is decided again.
    void reload(Clock::time_point now);

    // The topics have what the dictionary says from another one, which is whole or lacks what was
    // not understood.
    void dictionary_changed(bool is_whole, Clock::time_point now);

    // The next message, or nothing when none is due now.
    std::optional<Publication> next(Clock::time_point now);

    // When next() may have something that it holds back now.
    std::optional<Clock::time_point> due() const;

    // Say what became of a message that next() gave.
    void sent(const Publication &publication, int id, Clock::time_point now);
    void acknowledged(int id, const Answer &answer, Clock::time_point now);
    void refused(const Publication &publication, const std::string &why);
    void not_sent(const Publication &publication);

    // Sends a topic again although nothing changed, since the broker has been given an older value.
    void repeat(const std::string &tag, Clock::time_point now);
    // Looks at a tag that may be new, or gone before a scan has seen it.
    void look_at(const std::string &tag, Clock::time_point now);

    // The tags of a shared tree that a program of this device has taken over: it provides them, and
    // their value is its own.
    std::vector<std::string> take_tags_of_others()
    {
        return std::exchange(taken_over_, {});
    }

    // The last value that the broker has acknowledged and keeps; null when there is none.
    const Publication *last_kept() const
    {
        return acknowledged_.last_kept();
    }

    size_t pending_count() const
    {
        return pending_.size();
    }

    // The age of the oldest change that the broker does not have: one that waits, or was sent and
    // is not acknowledged. What a rule holds back counts from the end of its interval.
    milliseconds oldest_age(Clock::time_point now) const;

  private:
    std::optional<Publication> publication_for(OutTopic &topic, Clock::time_point since,
                                               Clock::time_point now);
    bool is_held(OutTopic &topic, const Sample &sample);
    bool passes_gate(OutTopic &topic, const Sample &sample, Clock::time_point now);
    std::optional<Publication> clearing(const std::string &mqtt);
    // For a topic that is no tag's: what Home Assistant is told there, else the clearing.
    std::optional<Publication> publication_beside_tags(const std::string &mqtt);
    void forget_cleared(const Publication &publication);
    void send_again_later(const Publication &publication, Clock::time_point now);
    void take_up_what_waits();

    const Configuration &configuration_;
    const StoreReader &reader_;
    LocalWriter *writer_;
    StateFile &state_;
    const std::string origin_;
    PendingNames &pending_; // MQTT topics: also those of topics that are gone
    TopicTable &topics_;
    SharedTags &shared_;
    Counters &counters_;
    Schedule schedule_;
    Announcements announcements_;
    Unacknowledged unacknowledged_;
    Acknowledged acknowledged_;
    std::vector<std::string> taken_over_;
    TokenBucket burst_;
    uint64_t number_; // of the last message of a shared tree; it never starts again from below
};

} // namespace kp::mqtt
