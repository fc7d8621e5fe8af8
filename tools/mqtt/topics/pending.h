// The names that wait to be sent, each once however often it is marked. It holds no values: the
// newest is read when a name's turn comes, so memory is bounded by the number of names, whatever
// the network does. What waits when a connection comes up is the burst, which has a rate of its
// own.
//
// The name that was marked first goes first, whether it belongs to the burst or not. So of n names
// that wait each has gone after n messages, however often others change meanwhile. Only while the
// rate holds the burst back, changes go ahead of it.
#pragma once

#include "base/clock.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

class PendingNames {
  public:
    struct Waiting {
        std::string name;
        Clock::time_point since; // when it was first marked
        bool in_burst = false;
    };

    // A name that waits already keeps its place, also when it moves from the burst to the changes.
    // It is as old as the older of its marks.
    void mark_change(const std::string &name, Clock::time_point since);
    void mark_burst(const std::string &name, Clock::time_point since);

    // Makes all that waits part of the burst.
    void join_burst();

    // Takes the name whose turn it is, one of the burst only if `burst_too` is true.
    std::optional<Waiting> take(bool burst_too);

    // Says whether a name waits among the changes.
    bool has_change(const std::string &name) const
    {
        const auto place = places_.find(name);
        return place != places_.end() && !place->second.in_burst;
    }
    bool has(const std::string &name) const
    {
        return places_.contains(name);
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
    using Line = std::map<uint64_t, Waiting>; // by the number of the first mark
    struct Place {
        bool in_burst;
        uint64_t number;
    };

    void mark(const std::string &name, Clock::time_point since, bool in_burst);

    Line changes_;
    Line burst_;
    std::unordered_map<std::string, Place> places_;
    uint64_t marks_ = 0;
};

} // namespace kp::mqtt
