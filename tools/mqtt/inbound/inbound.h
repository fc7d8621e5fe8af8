// From the broker to tags: which filters to subscribe, and what a message becomes. What cannot become
// a value is refused with a line in the log and counted.
#pragma once

#include "broker/message.h"
#include "config/configuration.h"
#include "counters.h"
#include "inbound/local_writer.h"
#include "log.h"
#include "names/topic_names.h"
#include "store_reader.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

// The device's part of an origin, which is DEVICE/BOOT.
std::string_view origin_device(std::string_view origin);

// What the writer of values is asked to do, and what it knows. All names are those that a topic gives;
// the writer finds their place in the store.
struct InboundEvents {
    std::function<void(const std::string &tag, WriteRequest request)> put;
    std::function<void(const std::string &tag)> drop;
    // The broker has been given a value of a shared tag that is older than the tag's.
    std::function<void(const std::string &tag)> older_arrived;
    // The broker has lost the value of a shared tag that lives on here.
    std::function<void(const std::string &tag)> cleared;
    // Whether a tag that can still be read is about to go.
    std::function<bool(const std::string &tag)> is_dropping;
};

class Inbound {
  public:
    Inbound(const Configuration &configuration, const StoreReader &reader, InboundEvents events,
            Counters &counters);

    std::vector<Subscription> subscriptions() const;
    void receive(const Message &message);

  private:
    struct Rule {
        const InRule *settings;
        // Written through it, by the name that the topic gives, and whether nobody had declared the
        // tag then, so that the bridge provides it.
        std::unordered_map<std::string, bool> tags;
    };

    Rule *rule_for(const std::string &topic);
    bool is_own(const Message &message) const;
    Name name_for(const Rule &rule, const std::string &topic) const;
    bool is_below_a_written_tag(const std::string &name) const;
    void take(Rule &rule, const std::string &name, const Message &message);
    void take_clearing(Rule &rule, const std::string &name);
    std::string convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                        const Sample &current, WriteRequest &request) const;
    bool is_superfluous(const InRule &rule, const std::string &tag, const Sample &current,
                        const Sample &wanted) const;
    void refuse(const std::string &topic, const std::string &why);

    const Configuration &configuration_;
    const StoreReader &reader_;
    const InboundEvents events_;
    Counters &counters_;
    std::vector<Rule> rules_;
    OncePerText said_;
};

} // namespace kp::mqtt
