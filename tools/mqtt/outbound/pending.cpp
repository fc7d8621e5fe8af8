#include "outbound/pending.h"

#include <algorithm>

namespace kp::mqtt {

void PendingNames::mark_change(const std::string &name, Clock::time_point since)
{
    const auto place = places_.find(name);
    if (place == places_.end()) {
        places_[name] = {false, changes_.insert(changes_.end(), {name, since})};
        return;
    }
    Waiting &waiting = *place->second.at;
    waiting.since = std::min(waiting.since, since);
    if (place->second.in_burst) {
        changes_.splice(changes_.end(), burst_, place->second.at);
        place->second.in_burst = false;
    }
}

void PendingNames::mark_burst(const std::string &name, Clock::time_point since)
{
    if (!places_.contains(name))
        places_[name] = {true, burst_.insert(burst_.end(), {name, since})};
}

void PendingNames::join_burst()
{
    for (const Waiting &waiting : changes_)
        places_.at(waiting.name).in_burst = true;
    burst_.splice(burst_.begin(), changes_);
}

std::optional<PendingNames::Waiting> PendingNames::take(bool burst_too)
{
    Line &line = changes_.empty() && burst_too ? burst_ : changes_;
    if (line.empty())
        return {};
    Waiting waiting = std::move(line.front());
    line.pop_front();
    places_.erase(waiting.name);
    return waiting;
}

std::optional<Clock::time_point> PendingNames::oldest() const
{
    std::optional<Clock::time_point> oldest;
    for (const Line *line : {&changes_, &burst_})
        for (const Waiting &waiting : *line)
            if (!oldest || waiting.since < *oldest)
                oldest = waiting.since;
    return oldest;
}

} // namespace kp::mqtt
