// The live topics that an out rule takes: which topics there are, what was last seen of each, and
// what has changed since. A topic of which the broker should get a message is marked as pending;
// Publications then makes the message.
#pragma once

#include "common/device/notice_marks.h"
#include "common/dictionary/dictionary.h"
#include "config/configuration.h"
#include "providers/handle_roles.h"
#include "store/store_reader.h"
#include "store/value_mark.h"
#include "topics/pacing.h"
#include "topics/pending.h"
#include "topics/state_file.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kp::mqtt {

struct OutTopic {
    std::string tag;
    std::string mqtt;
    const OutRule *rule = nullptr;
    tool::Facts facts; // what the dictionary says of the tag

    std::optional<Sample> seen; // at the last look, without the value, of which the hash is kept
    size_t value_hash = 0;
    HandleCounts counted;
    HandleRoles roles;
    bool providers_lost = false; // they ended without closing, and nothing was written since
    bool providers_gone = false; // they have closed the topic, or were lost
    unsigned scan = 0;           // the last scan that found it

    // The fields below are used by Publications.
    bool must_send = true;    // the next value is sent even if the gate would hold it back
    bool is_deferred = false; // its value waits for a time, and is marked then
    bool is_reminded = false; // there is a time at which it is sent again
    Gate gate;
    bool is_shared = false; // it belongs to a tree that several devices write
    ValueMark settled;      // the last value that was sent, or that the rule did not send

    // The fields below are used by Announcements.
    uint32_t announced_type = UINT32_MAX; // of the value when it was last looked at
    std::size_t announced_text = 0;       // the hash of what was told last; 0: nothing
};

// The unit of a tag's values, empty without one.
std::string_view unit_of(const tool::Facts &facts);

class TopicTable {
  public:
    using Topics = std::unordered_map<std::string, std::unique_ptr<OutTopic>>;

    TopicTable(const Configuration &configuration, const StoreReader &reader, StateFile &state,
               PendingNames &pending)
        : configuration_(configuration), reader_(reader), state_(state), pending_(pending)
    {
    }

    // Looks at the topics of the marked buckets. Returns false when a mark is explained by none of
    // them, so that there is probably a new topic.
    bool refresh(const tool::Buckets &buckets, Clock::time_point now);

    // Looks at the whole store: new topics, those gone, and changes that nobody announced.
    void scan(Clock::time_point now);

    // Looks at one tag, which may be new.
    void look_at(const std::string &tag, Clock::time_point now);

    // To be called when the rules have changed, while those before are still in memory. Drops the
    // topics that no rule takes any more and marks what must be sent again; the next scan finds new
    // topics.
    void reload(const Configuration &before, Clock::time_point now);

    // What the tags mean from now on. Marks those whose unit is another one.
    void use(std::shared_ptr<const tool::Dictionary> dictionary, Clock::time_point now);

    // What the dictionary says of a tag, be it there or not. Valid until another one is used.
    tool::Facts facts_of(std::string_view tag) const
    {
        return dictionary_->facts_of(tag);
    }

    // Says whether a look has found other counts of handles since this was asked last.
    bool counts_changed()
    {
        return std::exchange(counts_changed_, false);
    }

    // Compares who has which topic open with the counts, right after a scan: a provider that was
    // killed leaves its count behind. Returns the handles that are open on the topics.
    unsigned take_census(const HandleCensus &census, Clock::time_point now);

    // Takes a sample over as the last one seen. Says whether something changed that the broker
    // should know.
    bool take_up(OutTopic &topic, Sample sample);

    // Marks an MQTT topic, which need not be a tag's: it is to be sent although nothing changed.
    // `since` says how long the broker has lacked what it stands for.
    void mark_again(const std::string &mqtt, Clock::time_point since);

    // By the tag's name and by the MQTT topic; null when there is none.
    OutTopic *of_tag(const std::string &tag) const;
    OutTopic *of_mqtt(const std::string &mqtt) const;

    // By the tag's name.
    const Topics &all() const
    {
        return by_tag_;
    }

  private:
    OutTopic *add(const std::string &tag, const OutRule &rule);
    void remove(OutTopic &topic, Clock::time_point now);
    bool refresh(OutTopic &topic, Clock::time_point now);
    bool is_shared(const OutRule &rule, const std::string &mqtt) const;
    bool have_left_before(const OutTopic &topic, const Sample &sample) const;
    void take_counts(OutTopic &topic, const Sample &sample);
    void look_at_holders(OutTopic &topic, const HandleCensus &census, Clock::time_point now);

    const Configuration &configuration_;
    const StoreReader &reader_;
    StateFile &state_;
    PendingNames &pending_;

    std::shared_ptr<const tool::Dictionary> dictionary_ = std::make_shared<tool::Dictionary>();
    Topics by_tag_;
    std::unordered_map<std::string, OutTopic *> by_mqtt_;
    std::array<std::vector<OutTopic *>, KP_BUCKET_COUNT> by_bucket_;
    tool::Buckets others_; // buckets with topics that no rule takes
    unsigned scan_ = 0;
    bool counts_changed_ = false;
};

} // namespace kp::mqtt
