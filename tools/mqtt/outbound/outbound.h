// From tags to the broker: knows the live topics that a rule takes, finds what changed, and says what
// to publish next. It knows nothing of the connection but whether it stands.
#pragma once

#include "broker/broker_link.h"
#include "change_marks.h"
#include "config/configuration.h"
#include "counters.h"
#include "inbound/local_writer.h"
#include "log.h"
#include "outbound/pacing.h"
#include "outbound/pending.h"
#include "outbound/state_file.h"
#include "providers/handle_roles.h"
#include "store_reader.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

class Outbound {
  public:
    Outbound(const Configuration &configuration, const StoreReader &reader,
             const LocalWriter *writer, StateFile &state, std::string origin, Counters &counters);

    // Looks at the topics of the marked buckets. Returns false when a mark is explained by none of
    // them, so that there is probably a new topic.
    bool refresh(const Buckets &buckets, Clock::time_point now);

    // Looks at the whole store: new topics, those gone, and changes that nobody announced.
    void scan(Clock::time_point now);

    // Whether a scan has found other counts of handles since it was asked last.
    bool counts_changed()
    {
        return std::exchange(counts_changed_, false);
    }

    // Compares who has which topic open with the counts, right after a scan: a provider that was killed
    // leaves its count behind. Returns the handles that are open on the topics.
    unsigned take_census(const HandleCensus &census, Clock::time_point now);

    // A connection stands. Where the broker has kept what it had, only what changed meanwhile is
    // sent, else everything once. Either is the burst, which goes at its own rate behind all that
    // changes from now on.
    void connected(bool kept, Clock::time_point now);

    // What the broker has not acknowledged counts as changed again.
    void connection_lost(Clock::time_point now);

    // The next message, or nothing when none is due now.
    std::optional<Publication> next(Clock::time_point now);

    // The last value that the broker took to keep it: a broker that has it has all before. Null when
    // there is none.
    const Publication *last_kept() const
    {
        return last_kept_ ? &*last_kept_ : nullptr;
    }

    // What became of it.
    void sent(const Publication &publication, int id);
    void acknowledged(int id, int reason, Clock::time_point now);
    void refused(const Publication &publication, const std::string &why);
    void not_sent(const Publication &publication);

    // Sends a topic again although nothing changed, since the broker has been given an older value.
    void repeat(const std::string &tag, Clock::time_point now);

    // When next() may have something that it holds back now.
    std::optional<Clock::time_point> due() const;

    size_t topic_count() const
    {
        return by_tag_.size();
    }
    size_t pending_count() const
    {
        return pending_.size();
    }

    // The age of the oldest change that the broker does not have: one that waits, or was sent and is
    // not acknowledged. What a rule holds back counts from the end of its interval.
    std::chrono::milliseconds oldest_age(Clock::time_point now) const;

  private:
    struct Topic {
        std::string tag;
        std::string mqtt;
        const OutRule *rule;
        std::optional<Sample> seen; // the value's place is taken by its hash
        size_t value_hash = 0;
        HandleCounts counted;
        HandleRoles roles;
        bool providers_lost = false; // they ended without closing, and nothing was written since
        bool providers_gone = false; // in one way or the other
        bool must_send = true;       // whatever the gate says
        bool is_deferred = false;    // has an entry in later_
        unsigned scan = 0;           // the last scan that found it
        Gate gate;
    };

    void look_at(const std::string &tag, Clock::time_point now);
    Topic *add(const std::string &tag, const OutRule &rule);
    void remove(Topic &topic, Clock::time_point now);
    bool refresh(Topic &topic, Clock::time_point now);
    bool take_up(Topic &topic, Sample sample);
    bool have_left_before(const Topic &topic, const Sample &sample) const;
    void take_counts(Topic &topic, const Sample &sample);
    void look_at_holders(Topic &topic, const HandleCensus &census, Clock::time_point now);
    std::optional<Publication> publication_for(Topic &topic, Clock::time_point since,
                                               Clock::time_point now);
    // Whether a clearing of the topic is on its way.
    bool is_clearing(const std::string &mqtt) const;
    std::optional<Publication> clearing(const std::string &mqtt) const;
    Publication publication_of(const Topic &topic, const Sample &sample) const;
    void forget_cleared(const Publication &publication);
    void defer(Topic &topic, Clock::time_point until, Clock::time_point since);
    void mark_again(const std::string &mqtt, Clock::time_point since);
    void take_up_what_waits();
    void take_what_is_due(Clock::time_point now);

    const Configuration &configuration_;
    const StoreReader &reader_;
    const LocalWriter *writer_;
    StateFile &state_;
    std::string origin_;
    Counters &counters_;

    std::unordered_map<std::string, std::unique_ptr<Topic>> by_tag_;
    std::unordered_map<std::string, Topic *> by_mqtt_;
    std::array<std::vector<Topic *>, KP_BUCKET_COUNT> by_bucket_;
    Buckets others_; // buckets with topics that no rule takes
    unsigned scan_ = 0;
    bool counts_changed_ = false;

    PendingNames pending_; // MQTT topics: also those of topics that are gone
    std::multimap<Clock::time_point, PendingNames::Waiting> later_; // by when they may go
    std::unordered_map<int, Publication> unacknowledged_;
    std::optional<Publication> last_kept_;
    TokenBucket burst_;
    OncePerText said_;
};

} // namespace kp::mqtt
