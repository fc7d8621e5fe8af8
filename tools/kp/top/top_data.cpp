#include "top/top_data.h"

#include "common/clock.h"

#include <algorithm>
#include <cstdio>

namespace kp::tool {

namespace {

constexpr double kRateMemory = 0.7; // of the last rate in the new one, each second
// Of more topics than that no history is kept, which would be read each second for nobody.
constexpr std::size_t kMostHistories = 2000;

bool passes(const std::string &topic, const std::string &filter)
{
    if (filter.empty())
        return true;
    return is_pattern(filter) ? Pattern(filter).covers(topic)
                              : topic.find(filter) != std::string::npos;
}

} // namespace

TopData::TopData(const Selection &selection) : store_(selection), second_at_(monotonic_us())
{
}

void TopData::sample(uint64_t now)
{
    store_.refresh();
    (void)store_.take_problems(); // there is room for their number only; kp list tells them
    store_.for_each_change(
        [this](const LiveTopic &live, bool is_new) { rates_[live.topic].writes += !is_new; });
    ++looks_;
    if (now < second_at_ + kUsPerSecond)
        return;
    end_second(static_cast<double>(now - second_at_) / 1e6);
    second_at_ = now;
    looks_ = 0;
}

void TopData::end_second(double seconds)
{
    store_.forget_removed(rates_);
    store_.forget_removed(shown_);
    store_.forget_removed(histories_);
    for (auto &[topic, rate] : rates_) {
        rate.is_lower_bound = rate.writes * 2 > looks_;
        const double last = static_cast<double>(std::exchange(rate.writes, 0U)) / seconds;
        rate.per_second =
            rate.has_run ? rate.per_second * kRateMemory + last * (1 - kRateMemory) : last;
        rate.has_run = true;
    }
    if (store_.topics().size() <= kMostHistories)
        for (const auto &[topic, live] : store_.topics())
            histories_[topic].add(number_of(live.reader.read().value_or(Snapshot())));
}

double TopData::rate_of(const std::string &topic) const
{
    const auto found = rates_.find(topic);
    return found == rates_.end() ? 0 : found->second.per_second;
}

std::string TopData::rate_text(const std::string &topic) const
{
    const auto found = rates_.find(topic);
    const bool is_bound = found != rates_.end() && found->second.is_lower_bound;
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%s%.1f", is_bound ? ">=" : "", rate_of(topic));
    return text.data();
}

const ValueHistory &TopData::history(const std::string &topic) const
{
    static const ValueHistory none;
    const auto found = histories_.find(topic);
    return found == histories_.end() ? none : found->second;
}

bool TopData::comes_before(const LiveTopic &a, const LiveTopic &b, Order order) const
{
    switch (order) {
    case Order::rate:
        return rate_of(a.topic) > rate_of(b.topic);
    case Order::age:
        return a.seen.last_write_ts > b.seen.last_write_ts;
    case Order::size:
        return a.seen.size > b.seen.size;
    case Order::quality:
        return a.seen.quality < b.seen.quality;
    default:
        return a.topic < b.topic;
    }
}

std::vector<std::string> TopData::sorted_topics(const std::string &filter, Order order,
                                                bool is_reversed) const
{
    std::vector<const LiveTopic *> topics;
    for (const auto &[name, live] : store_.topics())
        if (passes(name, filter))
            topics.push_back(&live);
    if (order != Order::topic)
        std::ranges::stable_sort(topics, [this, order](const auto *a, const auto *b) {
            return comes_before(*a, *b, order);
        });
    if (is_reversed)
        std::ranges::reverse(topics);
    std::vector<std::string> names;
    names.reserve(topics.size());
    for (const LiveTopic *live : topics)
        names.push_back(live->topic);
    return names;
}

const ShownTopic *TopData::read(const std::string &topic, bool is_frozen)
{
    const auto found = store_.topics().find(topic);
    if (found == store_.topics().end())
        return nullptr;
    ShownTopic &shown = shown_[topic];
    if (is_frozen && shown.read_at != 0)
        return &shown;
    shown.snapshot = found->second.reader.read().value_or(Snapshot());
    shown.read_at = now_us(); // after the value, which else would be of a time to come
    return &shown;
}

} // namespace kp::tool
