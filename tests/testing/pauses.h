// Pauses without waiting: a clock that only the test moves, and how long the library would wait.
#pragma once

#include "testing/faults.h"

#include <chrono>
#include <ctime>

namespace kptest {

// Gives how long the last usleep(), poll() or epoll_wait() of the library was to last, on whichever
// thread: in microseconds for usleep(), else in milliseconds; -1 when there was none.
long last_wait(Call call);

// Are for the shims alone. The second gives the time of a clock that was stopped, and says whether
// it was.
void note_wait(Call call, long duration);
bool stopped_time(clockid_t clock, timespec &now);

// Lets the wall clock or the monotonic one stand still over a scope, for the library and all its
// threads.
class StoppedClock {
  public:
    // Begins at the time that it is.
    explicit StoppedClock(clockid_t clock);
    StoppedClock(const StoppedClock &) = delete;
    StoppedClock &operator=(const StoppedClock &) = delete;
    ~StoppedClock();

    void set(timespec time) const;
    void advance(std::chrono::nanoseconds time) const;

  private:
    clockid_t clock_;
};

// Each poll() of the library is interrupted by a signal as soon as a stopped clock has moved on by
// so much.
class PassedPauses : public Shim {
  public:
    PassedPauses(const StoppedClock &clock, std::chrono::milliseconds each);
};

} // namespace kptest
