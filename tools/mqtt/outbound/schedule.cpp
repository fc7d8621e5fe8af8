#include "outbound/schedule.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

void Schedule::defer(OutTopic &topic, Clock::time_point until, Clock::time_point since)
{
    if (!std::exchange(topic.is_deferred, true))
        deferred_.emplace(until, PendingNames::Waiting{topic.mqtt, since});
}

void Schedule::defer(const std::string &mqtt, Clock::time_point until, Clock::time_point since)
{
    if (OutTopic *topic = topics_.of_mqtt(mqtt))
        defer(*topic, until, since);
    else
        deferred_.emplace(until, PendingNames::Waiting{mqtt, since});
}

void Schedule::remind(OutTopic &topic)
{
    const milliseconds interval = topic.rule->quiet.max_interval;
    if (interval.count() == 0 || !topic.gate.sent_at() || topic.is_reminded)
        return;
    topic.is_reminded = true;
    reminders_.emplace(*topic.gate.sent_at() + interval, topic.mqtt);
}

void Schedule::take_deferred(Clock::time_point now)
{
    while (!deferred_.empty() && deferred_.begin()->first <= now) {
        const PendingNames::Waiting waiting = std::move(deferred_.begin()->second);
        deferred_.erase(deferred_.begin());
        OutTopic *topic = topics_.of_mqtt(waiting.name);
        if (topic)
            topic->is_deferred = false;
        if (topic || state_.has(waiting.name))
            pending_.mark_change(waiting.name, waiting.since);
    }
}

// A topic that was sent meanwhile waits on, until its interval is over after that.
void Schedule::take_reminders(Clock::time_point now)
{
    while (!reminders_.empty() && reminders_.begin()->first <= now) {
        OutTopic *topic = topics_.of_mqtt(reminders_.begin()->second);
        reminders_.erase(reminders_.begin());
        if (!topic)
            continue;
        topic->is_reminded = false;
        const milliseconds interval = topic->rule->quiet.max_interval;
        if (interval.count() > 0 && now - topic->gate.sent_at().value_or(now) >= interval)
            topics_.mark_again(topic->mqtt, now);
        else
            remind(*topic);
    }
}

std::optional<Clock::time_point> Schedule::due() const
{
    std::optional<Clock::time_point> due;
    if (!deferred_.empty())
        due = deferred_.begin()->first;
    if (!reminders_.empty())
        due = std::min(due.value_or(Clock::time_point::max()), reminders_.begin()->first);
    return due;
}

std::optional<Clock::time_point> Schedule::oldest() const
{
    std::optional<Clock::time_point> oldest;
    for (const auto &[until, waiting] : deferred_)
        oldest = std::min(oldest.value_or(waiting.since), waiting.since);
    return oldest;
}

} // namespace kp::mqtt
