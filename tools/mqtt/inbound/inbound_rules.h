// The in rules with what has come through each of them, and the subscriptions that they need.
#pragma once

#include "config/configuration.h"
#include "messages/message.h"

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

// What is known of a tag that a message was written to.
struct TakenTag {
    bool is_own = false; // nobody had declared the tag, so that the bridge provides it
    std::string sender;  // the device, or an empty text
    uint8_t quality = 0; // of the message
    uint8_t shown = 0;   // that of the value in the store
};

struct InboundRule {
    const InRule *settings;
    uint32_t number; // of its subscription
    // Written through it, by the name that the topic gives.
    std::unordered_map<std::string, TakenTag> tags{};
    std::set<std::string> away{}; // senders that have said so
    // A rule that is new has none until the broker has made it, and one that the broker refuses has
    // none at all: its messages come for other rules.
    bool has_subscription = true;

    // Says whether a message that the rule takes is the copy for this rule. Where rules overlap, a
    // broker may send a copy for each of their subscriptions.
    bool is_meant_by(const Message &message) const;
};

class InboundRules {
  public:
    explicit InboundRules(const Configuration &configuration);

    // To be called when the rules have changed, while the old ones are still in memory. A rule that
    // stays keeps what has come through it, and the number of its subscription, which need not be
    // made anew then. Returns the bridge's own tags that no rule has any more.
    std::vector<std::string> reload();
    // The broker has made a subscription, or refuses it.
    void answered_for(const std::string &filter, bool is_made);

    // Those of the rules, and those of the states of senders.
    std::vector<Subscription> subscriptions() const;

    // In the order of the configuration.
    std::span<InboundRule> all()
    {
        return rules_;
    }
    // The most exact of the rules that take a topic, or null.
    InboundRule *rule_for(const std::string &topic);

    // Says whether a level of the name is a tag that a message was written to.
    bool is_below_a_written_tag(const std::string &name) const;
    // The tag of one of these names is no longer the bridge's own. False where none was.
    bool disown(const std::vector<std::string> &names);

  private:
    uint32_t number_for(const std::string &text) const;
    void find_state_filters();

    const Configuration &configuration_;
    std::vector<InboundRule> rules_;
    std::map<std::string, uint32_t> state_filters_; // with the numbers of their subscriptions
};

} // namespace kp::mqtt
