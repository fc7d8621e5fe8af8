// From the broker to tags: which filters to subscribe, and what a message becomes. What cannot become
// a value is refused with a line in the log and counted.
#pragma once

#include "broker_link.h"
#include "configuration.h"
#include "counters.h"
#include "local_writer.h"
#include "log.h"
#include "store_reader.h"
#include "topic_names.h"

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

namespace kp::mqtt {

// The device's part of an origin, which is DEVICE/BOOT.
std::string_view origin_device(std::string_view origin);

class Inbound {
  public:
    // Where values go: the writer's put() and drop(), apart from tests.
    struct Target {
        std::function<void(const std::string &tag, WriteRequest request)> put;
        std::function<void(const std::string &tag)> drop;
        // The broker has been given a value of a shared tag that is older than the tag's.
        std::function<void(const std::string &tag)> older_arrived;
    };

    Inbound(const Configuration &configuration, const StoreReader &reader, Target target,
            Counters &counters);

    std::vector<Subscription> subscriptions() const;
    void receive(const Message &message);

  private:
    struct Rule {
        const InRule *settings;
        std::unordered_set<std::string> tags; // written through it
    };

    Rule *rule_for(const std::string &topic);
    bool is_own(const Message &message) const;
    Name tag_for(const Rule &rule, const std::string &topic) const;
    void take(Rule &rule, const std::string &tag, const Message &message);
    std::string convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                        const Sample &current, WriteRequest &request) const;
    bool is_superfluous(const InRule &rule, const std::string &tag, const Sample &current,
                        const Sample &wanted) const;
    void refuse(const std::string &topic, const std::string &why);

    const Configuration &configuration_;
    const StoreReader &reader_;
    Target target_;
    Counters &counters_;
    std::vector<Rule> rules_;
    OncePerText said_;
};

} // namespace kp::mqtt
