// The two clocks of the tools, in microseconds.
#pragma once

#include <cstdint>
#include <time.h>

namespace kp::tool {

constexpr uint64_t kUsPerSecond = 1'000'000;

constexpr uint64_t to_us(const timespec &time)
{
    return static_cast<uint64_t>(time.tv_sec) * kUsPerSecond +
           static_cast<uint64_t>(time.tv_nsec) / 1000;
}

inline uint64_t clock_us(clockid_t clock)
{
    timespec now{};
    (void)clock_gettime(clock, &now);
    return to_us(now);
}

// The wall clock since the Unix epoch, which also gives writes their timestamps.
inline uint64_t now_us()
{
    return clock_us(CLOCK_REALTIME);
}

// The monotonic clock, for the tools' own intervals.
inline uint64_t monotonic_us()
{
    return clock_us(CLOCK_MONOTONIC);
}

} // namespace kp::tool
