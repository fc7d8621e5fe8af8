#include "topics/pending.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

void PendingNames::mark(const std::string &name, Clock::time_point since, bool in_burst)
{
    places_[name] = {in_burst, ++marks_};
    (in_burst ? burst_ : changes_).emplace(marks_, Waiting{name, since, in_burst});
}

void PendingNames::mark_change(const std::string &name, Clock::time_point since)
{
    const auto found = places_.find(name);
    if (found == places_.end())
        return mark(name, since, false);
    Place &place = found->second;
    if (std::exchange(place.in_burst, false))
        changes_.insert(burst_.extract(place.number));
    Waiting &waiting = changes_.at(place.number);
    waiting.since = std::min(waiting.since, since);
    waiting.in_burst = false;
}

void PendingNames::mark_burst(const std::string &name, Clock::time_point since)
{
    if (!places_.contains(name))
        mark(name, since, true);
}

void PendingNames::join_burst()
{
    for (auto &[number, waiting] : changes_) {
        places_.at(waiting.name).in_burst = true;
        waiting.in_burst = true;
    }
    burst_.merge(changes_);
}

std::optional<PendingNames::Waiting> PendingNames::take(bool burst_too)
{
    const bool may_be_burst = burst_too && !burst_.empty();
    const bool burst_is_older =
        may_be_burst && (changes_.empty() || burst_.begin()->first < changes_.begin()->first);
    Line &line = burst_is_older ? burst_ : changes_;
    if (line.empty())
        return {};
    Waiting waiting = std::move(line.begin()->second);
    line.erase(line.begin());
    places_.erase(waiting.name);
    return waiting;
}

std::optional<Clock::time_point> PendingNames::oldest() const
{
    std::optional<Clock::time_point> oldest;
    for (const Line *line : {&changes_, &burst_})
        for (const auto &[number, waiting] : *line)
            oldest = std::min(oldest.value_or(waiting.since), waiting.since);
    return oldest;
}

} // namespace kp::mqtt
