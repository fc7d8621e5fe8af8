#include "inbound/inbound_rules.h"

#include "inbound/subscription_number.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

namespace {

// What makes it the same rule for a reload, and for a broker that has kept messages for it.
std::string identity_of(const InRule &rule)
{
    return rule.prefix + '\n' + rule.filter + '\n' + rule.tags;
}

} // namespace

bool InboundRule::is_meant_by(const Message &message) const
{
    const auto &came_for = message.subscriptions;
    return came_for.empty() || !has_subscription ||
           std::ranges::find(came_for, number) != came_for.end();
}

InboundRules::InboundRules(const Configuration &configuration) : configuration_(configuration)
{
    for (const InRule &rule : configuration.in)
        rules_.push_back({&rule, number_for(identity_of(rule))});
    find_state_filters();
}

std::vector<std::string> InboundRules::reload()
{
    std::vector<InboundRule> before = std::exchange(rules_, {});
    for (const InRule &settings : configuration_.in) {
        const auto same = std::ranges::find_if(before, [&settings](const InboundRule &rule) {
            return identity_of(*rule.settings) == identity_of(settings);
        });
        if (same == before.end())
            rules_.push_back({&settings, number_for(identity_of(settings)), {}, {}, false});
        else
            rules_.push_back({&settings, same->number, std::exchange(same->tags, {}), same->away});
    }
    find_state_filters();
    std::vector<std::string> left;
    for (const InboundRule &rule : before)
        for (const auto &[name, taken] : rule.tags)
            if (taken.is_own &&
                std::ranges::none_of(rules_, [&name = name](const InboundRule &other) {
                    return other.tags.contains(name);
                }))
                left.push_back(name);
    return left;
}

uint32_t InboundRules::number_for(const std::string &text) const
{
    return subscription_number(text, [this](uint32_t number) {
        return std::ranges::find(rules_, number, &InboundRule::number) != rules_.end() ||
               std::ranges::any_of(state_filters_, [number](const auto &filter) {
                   return filter.second == number;
               });
    });
}

void InboundRules::find_state_filters()
{
    const auto before = std::exchange(state_filters_, {});
    for (const InboundRule &rule : rules_) {
        const std::string &filter = rule.settings->sender_state;
        const auto same = before.find(filter);
        if (!filter.empty() && !state_filters_.contains(filter))
            state_filters_[filter] =
                same == before.end() ? number_for("state of senders\n" + filter) : same->second;
    }
}

void InboundRules::answered_for(const std::string &filter, bool is_made)
{
    for (InboundRule &rule : rules_)
        if (rule.settings->full_filter() == filter)
            rule.has_subscription = is_made;
}

std::vector<Subscription> InboundRules::subscriptions() const
{
    std::vector<Subscription> subscriptions;
    for (const InboundRule &rule : rules_) {
        const InRule &settings = *rule.settings;
        const bool own_too = settings.shared && settings.retained;
        subscriptions.push_back(
            {settings.full_filter(), settings.qos, settings.retained, own_too, rule.number});
    }
    for (const auto &[filter, number] : state_filters_)
        subscriptions.push_back({filter, 1, true, false, number, true});
    return subscriptions;
}

InboundRule *InboundRules::rule_for(const std::string &topic)
{
    const InRule *settings = configuration_.in_rule_for(topic);
    return settings ? &rules_[static_cast<size_t>(settings - configuration_.in.data())] : nullptr;
}

bool InboundRules::is_below_a_written_tag(const std::string &name) const
{
    for (size_t end = name.find('/'); end != name.npos; end = name.find('/', end + 1))
        for (const InboundRule &rule : rules_)
            if (rule.tags.contains(name.substr(0, end)))
                return true;
    return false;
}

bool InboundRules::disown(const std::vector<std::string> &names)
{
    bool was_own = false;
    for (InboundRule &rule : rules_)
        for (const std::string &name : names)
            if (const auto taken = rule.tags.find(name); taken != rule.tags.end())
                was_own = std::exchange(taken->second.is_own, false) || was_own;
    return was_own;
}

} // namespace kp::mqtt
