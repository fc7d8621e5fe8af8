// When to connect again.
#pragma once

#include "base/clock.h"

#include <algorithm>
#include <cstdint>
#include <random>

namespace kp::mqtt {

// The delays between attempts to connect. Each is about twice as long as the one before, up to a
// maximum. Each is partly random, so that not all devices of a plant come back at the same moment.
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
