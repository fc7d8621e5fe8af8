#include "testing/pauses.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

namespace kptest {

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kRuns = INT64_MIN;
constexpr std::size_t kMostCalls = 64;

std::array<std::atomic<long>, kMostCalls> waits;
std::atomic<int64_t> wall_ns = kRuns;
std::atomic<int64_t> monotonic_ns = kRuns;

// The time at which a clock stands.
std::atomic<int64_t> &time_of(clockid_t clock)
{
    return clock == CLOCK_REALTIME ? wall_ns : monotonic_ns;
}

int64_t ns_of(timespec time)
{
    return time.tv_sec * kNsPerSecond + time.tv_nsec;
}

} // namespace

long last_wait(Call call)
{
    return waits[static_cast<std::size_t>(call)].load(std::memory_order_relaxed) - 1;
}

void note_wait(Call call, long duration)
{
    waits[static_cast<std::size_t>(call)].store(duration + 1, std::memory_order_relaxed);
}

bool stopped_time(clockid_t clock, timespec &now)
{
    const int64_t ns = time_of(clock).load(std::memory_order_relaxed);
    if (ns == kRuns || (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC))
        return false;
    now = {ns / kNsPerSecond, ns % kNsPerSecond};
    return true;
}

StoppedClock::StoppedClock(clockid_t clock) : clock_(clock)
{
    timespec now{};
    (void)clock_gettime(clock, &now);
    set(now);
}

StoppedClock::~StoppedClock()
{
    time_of(clock_) = kRuns;
}

void StoppedClock::set(timespec time) const
{
    time_of(clock_) = ns_of(time);
}

void StoppedClock::advance(std::chrono::nanoseconds time) const
{
    time_of(clock_) += time.count();
}

PassedPauses::PassedPauses(const StoppedClock &clock, std::chrono::milliseconds each)
    : Shim({Call::poll, 1, LONG_MAX, EINTR, Threads::all, [&clock, each] { clock.advance(each); }})
{
}

} // namespace kptest
