// The clocks of the benchmarks. All processes of a run share one machine, so that a stamp taken in
// one process can be subtracted from a stamp taken in another.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/types.h>

namespace bench {

inline uint64_t read_clock_ns(clockid_t clock)
{
    timespec now{};
    (void)clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t now_ns()
{
    return read_clock_ns(CLOCK_MONOTONIC);
}

// Gives the processor time that all threads of a process have used; 0 for a process that is gone.
inline uint64_t cpu_ns(pid_t process)
{
    clockid_t clock{};
    return clock_getcpuclockid(process, &clock) == 0 ? read_clock_ns(clock) : 0;
}

inline void sleep_until(uint64_t ns)
{
    const timespec until{static_cast<time_t>(ns / 1'000'000'000),
                         static_cast<long>(ns % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0)
        ;
}

inline void sleep_ms(uint64_t ms)
{
    sleep_until(now_ns() + ms * 1'000'000);
}

} // namespace bench
