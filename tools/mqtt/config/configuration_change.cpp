#include "config/configuration_change.h"

#include <algorithm>
#include <tuple>

namespace kp::mqtt {

namespace {

auto of_the_process(const Configuration &settings)
{
    return std::tie(settings.device, settings.endpoint, settings.status_prefix, settings.state_file,
                    settings.trust_visible, settings.dictionary);
}

bool connect_alike(const Configuration &before, const Configuration &after)
{
    const auto same = [](const BrokerSettings *one, const BrokerSettings *other) {
        return one->connects_like(*other);
    };
    return before.state_topic == after.state_topic &&
           std::ranges::equal(before.brokers(), after.brokers(), same);
}

// All that decides which tags and topics belong to a shared tree.
bool has_same_tree(const Configuration &before, const Configuration &after)
{
    const auto same_out = [](const OutRule &one, const OutRule &other) {
        return one.sends_like(other) && one.pattern == other.pattern &&
               one.exclude == other.exclude;
    };
    const auto same_in = [](const InRule &one, const InRule &other) {
        return std::tie(one.prefix, one.filter, one.tags, one.qos, one.retained, one.shared) ==
               std::tie(other.prefix, other.filter, other.tags, other.qos, other.retained,
                        other.shared);
    };
    const auto is_shared = [](const InRule &rule) { return rule.shared; };
    if (std::ranges::none_of(before.in, is_shared) && std::ranges::none_of(after.in, is_shared))
        return true;
    return std::ranges::equal(before.out, after.out, same_out) &&
           std::ranges::equal(before.in, after.in, same_in);
}

} // namespace

// A shared tree is read as a whole when a connection comes up, and at no other time.
Reach reach_of(const Configuration &before, const Configuration &after)
{
    if (of_the_process(before) != of_the_process(after))
        return Reach::everything;
    if (!connect_alike(before, after) || !has_same_tree(before, after))
        return Reach::connection;
    return Reach::rules;
}

} // namespace kp::mqtt
