#include "broker/subscriptions.h"

#include "base/log.h"
#include "common/text/text.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

namespace {

bool has_filter(const std::vector<Subscription> &subscriptions, const std::string &filter)
{
    return std::ranges::find(subscriptions, filter, &Subscription::filter) != subscriptions.end();
}

} // namespace

void Subscriptions::ask_for(BrokerLink &link, std::vector<Subscription> wanted)
{
    reads_tree_ = false;
    asked_for_ = std::move(wanted);
    for (Subscription subscription : asked_for_) {
        if (subscription.own_too)
            subscription.qos = 0;
        reads_tree_ = reads_tree_ || subscription.own_too;
        if (!subscription.at_last)
            ask(link, subscription);
    }
}

void Subscriptions::ask_for_good(BrokerLink &link)
{
    for (Subscription subscription : asked_for_) {
        subscription.retained = false;
        if (subscription.own_too && subscription.qos > 0)
            ask(link, subscription);
    }
}

void Subscriptions::ask_at_last(BrokerLink &link)
{
    for (const Subscription &subscription : asked_for_)
        if (subscription.at_last)
            ask(link, subscription);
}

void Subscriptions::ask(BrokerLink &link, const Subscription &subscription)
{
    if (!ask_shortly(link, subscription))
        log(Level::error, "the filter cannot be subscribed: " + tool::escaped(subscription.filter));
}

bool Subscriptions::ask_shortly(BrokerLink &link, const Subscription &subscription)
{
    int id = 0;
    if (!link.subscribe(subscription, id))
        return false;
    unanswered_[id] = subscription.filter;
    return true;
}

void Subscriptions::change(BrokerLink &link, std::vector<Subscription> wanted, bool at_last_too)
{
    const auto before = std::exchange(asked_for_, std::move(wanted));
    for (const Subscription &old : before)
        if (!has_filter(asked_for_, old.filter))
            link.unsubscribe(old.filter);
    for (const Subscription &subscription : asked_for_)
        if (std::ranges::find(before, subscription) == before.end() &&
            (at_last_too || !subscription.at_last))
            ask(link, subscription);
}

std::string Subscriptions::answered(int id)
{
    const auto found = unanswered_.find(id);
    if (found == unanswered_.end())
        return {};
    std::string filter = std::move(found->second);
    unanswered_.erase(found);
    return filter;
}

void Subscriptions::leave_behind(const std::string &filter)
{
    if (std::ranges::find(left_behind_, filter) == left_behind_.end())
        left_behind_.push_back(filter);
}

void Subscriptions::leave_behind_all_but(const std::vector<Subscription> &wanted)
{
    for (const Subscription &old : asked_for_)
        if (!has_filter(wanted, old.filter))
            leave_behind(old.filter);
}

void Subscriptions::end_what_is_left(BrokerLink &link)
{
    for (const std::string &topic : std::exchange(left_behind_, {}))
        if (link.has_session())
            link.unsubscribe(topic);
}

} // namespace kp::mqtt
