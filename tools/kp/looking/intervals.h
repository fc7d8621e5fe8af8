// How often a topic is written, from the time stamps of its writes.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kp::tool {

// Intervals between the writes that were seen, in microseconds.
class Intervals {
  public:
    void add(uint64_t interval_us)
    {
        const auto value = static_cast<double>(interval_us);
        ++count_;
        // Welford's method: it stays exact, however many intervals there are.
        const double before = value - mean_;
        mean_ += before / static_cast<double>(count_);
        squares_ += before * (value - mean_);
        least_ = count_ == 1 ? interval_us : std::min(least_, interval_us);
        most_ = std::max(most_, interval_us);
    }

    uint64_t count() const
    {
        return count_;
    }
    uint64_t least_us() const
    {
        return least_;
    }
    uint64_t most_us() const
    {
        return most_;
    }
    double mean_us() const
    {
        return mean_;
    }
    // The standard deviation.
    double jitter_us() const
    {
        return count_ > 1 ? std::sqrt(squares_ / static_cast<double>(count_ - 1)) : 0;
    }

  private:
    uint64_t count_ = 0;
    uint64_t least_ = 0;
    uint64_t most_ = 0;
    double mean_ = 0;
    double squares_ = 0;
};

} // namespace kp::tool
