// When to connect again.
#pragma once

#include "base/clock.h"

#include <algorithm>
#include <cstdint>
#include <random>

namespace kp::mqtt {

// Delays between attempts to connect: each about twice the one before, up to a maximum, and each a
// random part of it, so that a fleet does not come back at once.
class Backoff {
  public:
    Backoff(milliseconds first, milliseconds most, uint64_t seed = std::random_device{}())
        : first_(first), most_(most), next_(first), random_(seed)
    {
    }
    milliseconds next();
    void reset()
    {
        next_ = first_;
    }

  private:
    milliseconds first_;
    milliseconds most_;
    milliseconds next_;
    std::mt19937_64 random_;
};

} // namespace kp::mqtt
