// The clocks of the library.
#pragma once

#include <cstdint>
#include <sys/time.h>
#include <time.h>

namespace kp {

// The wall clock in microseconds since the Unix epoch.
inline uint64_t wall_clock_us()
{
    timeval now;
    (void)gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
}

// The monotonic clock, for intervals: nobody can set it.
inline int64_t monotonic_ns()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

inline int64_t monotonic_ms()
{
    return monotonic_ns() / 1'000'000;
}

} // namespace kp
