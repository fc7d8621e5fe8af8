// From the broker to tags: which filters to subscribe, and what a message becomes. What cannot
// become a value is refused with a line in the log and counted.
#pragma once

#include "base/counters.h"
#include "broker/message.h"
#include "config/configuration.h"
#include "names/topic_names.h"
#include "outbound/shared_tags.h"
#include "store/local_writer.h"
#include "store/store_reader.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

// What the writer of values is asked to do, and what it knows. All names are those that a topic
// gives; the writer finds their place in the store.
struct InboundEvents {
    std::function<void(const std::string &tag, WriteRequest request)> put;
    // With `left_over` also a value that an earlier run has left behind.
    std::function<void(const std::string &tag, bool left_over)> drop;
    // The broker has lost the value of a shared tag that lives on here.
    std::function<void(const std::string &tag)> cleared;
    // Whether a tag that can still be read is about to go.
    std::function<bool(const std::string &tag)> is_dropping;
};

class Inbound {
  public:
    Inbound(const Configuration &configuration, const StoreReader &reader, SharedTags &shared,
            InboundEvents events, Counters &counters);

    std::vector<Subscription> subscriptions() const;

    // The rules are others; those before still stand in memory. What was written through a rule
    // that is no more goes.
    void reload();
    // The broker has answered for a subscription.
    void subscribed(const std::string &filter);

    void receive(const Message &message);

    // Gives up the tags of these topics, which the broker no longer keeps.
    void give_up(const std::vector<std::string> &topics);

  private:
    struct Rule {
        const InRule *settings;
        uint32_t number; // of its subscription
        // Written through it, by the name that the topic gives, and whether nobody had declared the
        // tag then, so that the bridge provides it.
        std::unordered_map<std::string, bool> tags;
        // It is new, and what it takes still comes for others.
        bool is_awaited = false;
    };

    Rule *rule_for(const std::string &topic);
    bool is_own(const Message &message) const;
    Name name_for(const Rule &rule, const std::string &topic) const;
    bool is_below_a_written_tag(const std::string &name) const;
    void take(Rule &rule, const std::string &name, const Message &message);
    void take_shared(Rule &rule, const std::string &name, const Message &message);
    void write(Rule &rule, const std::string &name, const Message &message, ReadOutcome outcome,
               const Sample &current, WriteRequest request);
    void lose(Rule &rule, const std::string &name, const std::string &tag, const Sample &current);
    void drop(Rule &rule, const std::string &name, bool left_over);
    ReadOutcome look(const std::string &name, const std::string &tag, Sample &current) const;
    bool is_ours_alone(const Rule &rule, const std::string &name, const Sample &current) const;
    std::string convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                        const Sample &current, WriteRequest &request) const;
    bool is_superfluous(const std::string &tag, const Message &message, const Sample &current,
                        const WriteRequest &request) const;
    void refuse(const std::string &topic, const std::string &why);

    const Configuration &configuration_;
    const StoreReader &reader_;
    SharedTags &shared_;
    const InboundEvents events_;
    Counters &counters_;
    std::vector<Rule> rules_;
    uint32_t last_number_ = 0;
};

} // namespace kp::mqtt
