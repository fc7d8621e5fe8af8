// The endpoints of this device that tell the bridge nothing of their changes: those that have their
// 31 peers already, are stopped, or may not be connected to. What they write is found by the scan
// alone, so it goes out late.
#pragma once

#include "base/clock.h"

#include <set>
#include <string>

namespace kp::mqtt {

class UnheardEndpoints {
  public:
    explicit UnheardEndpoints(std::string own_endpoint) : own_(std::move(own_endpoint))
    {
    }

    // Looks now and then who is connected, and logs what has changed. Call it about once a second.
    void look(Clock::time_point now);

    // How many there are.
    size_t count() const
    {
        return reported_.size();
    }

  private:
    std::set<std::string> find() const;

    const std::string own_;
    Clock::time_point next_look_{};
    std::set<std::string> seen_;     // at the last look: one that starts connects in a moment
    std::set<std::string> reported_; // at the last two
};

} // namespace kp::mqtt
