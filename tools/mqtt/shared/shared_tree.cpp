#include "shared/shared_tree.h"

#include "kp.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

// An own message that has not come back after this time never will: the broker may let somebody
// write a topic who may not read it.
constexpr milliseconds kLost{30'000};

} // namespace

void SharedTree::sent(const std::string &topic, MessageKey key, Clock::time_point now)
{
    Topic &known = topics_[topic];
    known.on_its_way = key;
    known.sent_at = now;
}

void SharedTree::refused(const std::string &topic, MessageKey key)
{
    const auto found = topics_.find(topic);
    if (found == topics_.end() || found->second.on_its_way != key)
        return;
    found->second.on_its_way = 0;
    forget_if_empty(found);
}

void SharedTree::connection_lost()
{
    for (auto &[name, topic] : topics_)
        topic.on_its_way = 0;
}

void SharedTree::start_reading()
{
    for (auto &[name, topic] : topics_)
        topic.is_there = false;
}

void SharedTree::forget_what_is_not_there()
{
    std::erase_if(
        topics_, [](const auto &item) { return !item.second.is_there && !item.second.on_its_way; });
}

void SharedTree::take_own(Topic &topic, const Arrival &arrival)
{
    if (topic.on_its_way && topic.on_its_way != arrival.key)
        return; // a later one is still on its way
    topic.on_its_way = 0;
    topic.last = arrival.is_clearing ? 0 : arrival.key;
    topic.is_there = !arrival.is_clearing;
    topic.is_own = true;
}

Effect SharedTree::received(const std::string &name, const Arrival &arrival, Standing standing,
                            uint64_t source_ts, Clock::time_point now)
{
    const auto found = topics_.try_emplace(name).first;
    Topic &topic = found->second;
    if (arrival.is_own) {
        take_own(topic, arrival);
        forget_if_empty(found);
        return Effect::ignore;
    }
    if (topic.on_its_way && now - topic.sent_at < kLost)
        return Effect::ignore;
    topic.on_its_way = 0;
    const bool is_news = arrival.is_clearing || arrival.key != topic.last;
    topic.last = arrival.is_clearing ? 0 : arrival.key;
    topic.is_there = !arrival.is_clearing;
    topic.is_own = false;
    if (arrival.is_clearing) {
        forget_if_empty(found);
        return standing == Standing::absent        ? Effect::ignore
               : standing == Standing::from_broker ? Effect::drop
                                                   : Effect::repeat;
    }
    if (standing == Standing::absent || standing == Standing::from_broker)
        return Effect::write;
    const bool gives_way = standing == Standing::sent || wins(arrival, source_ts);
    return is_news && gives_way ? Effect::write : Effect::ignore;
}

// Times are compared with what was written here and is not sent yet, and with nothing else. A time
// in the future means a clock that is wrong, and counts as now.
bool SharedTree::wins(const Arrival &arrival, uint64_t source_ts) const
{
    const uint64_t now = kp_get_timestamp_us();
    const uint64_t theirs = std::min(arrival.source_ts, now);
    const uint64_t ours = std::min(source_ts, now);
    return theirs != ours ? theirs > ours : arrival.origin > device_;
}

bool SharedTree::is_there(const std::string &topic) const
{
    const auto found = topics_.find(topic);
    return found != topics_.end() && found->second.is_there;
}

bool SharedTree::is_last(const std::string &topic, MessageKey key) const
{
    const auto found = topics_.find(topic);
    return found != topics_.end() && !found->second.on_its_way && found->second.last == key;
}

bool SharedTree::has_own_last(const std::string &topic) const
{
    const auto found = topics_.find(topic);
    return found != topics_.end() && (found->second.on_its_way || found->second.is_own);
}

void SharedTree::forget_if_empty(Topics::iterator found)
{
    if (!found->second.is_there && !found->second.on_its_way)
        topics_.erase(found);
}

} // namespace kp::mqtt
