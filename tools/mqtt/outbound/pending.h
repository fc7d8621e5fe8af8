// The names that wait to be sent, each once however often it is marked, the oldest first. It holds no
// values: the newest is read when a name's turn comes, so memory is bounded by the number of names,
// whatever the network does. What waits when a connection comes up is the burst: it waits in a line of
// its own, behind every change made since.
#pragma once

#include "clock.h"

#include <list>
#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

class PendingNames {
  public:
    struct Waiting {
        std::string name;
        Clock::time_point since; // when it was first marked
    };

    // A name that waits already keeps its place, or moves from the burst to the changes, and is as
    // old as the older of its marks either way.
    void mark_change(const std::string &name, Clock::time_point since);
    void mark_burst(const std::string &name, Clock::time_point since);

    // Makes all that waits part of the burst, with what waited longest in front.
    void join_burst();

    // Takes the name whose turn it is; the burst only where `burst_too` says so.
    std::optional<Waiting> take(bool burst_too);

    // Whether it waits among the changes.
    bool has_change(const std::string &name) const
    {
        const auto place = places_.find(name);
        return place != places_.end() && !place->second.in_burst;
    }
    bool has_change() const
    {
        return !changes_.empty();
    }
    bool has_burst() const
    {
        return !burst_.empty();
    }
    size_t size() const
    {
        return places_.size();
    }
    // When the name that has waited longest was first marked; nothing when none waits.
    std::optional<Clock::time_point> oldest() const;

  private:
    using Line = std::list<Waiting>;
    struct Place {
        bool in_burst;
        Line::iterator at;
    };

    Line changes_; // in the order of marking, which is not always that of `since`
    Line burst_;
    std::unordered_map<std::string, Place> places_;
};

} // namespace kp::mqtt
