// Ending and waiting of the commands that run until they are told to stop.
#pragma once

#include <cstdint>

namespace kp::tool {

// From now on signals that would end the program, but for those of crashes, are remembered instead.
void catch_stop_signals();

// The signal that asked for the end, or 0.
int stop_signal();

// Waits until the monotonic time. False, at once, when a signal asked for the end or the reader of
// standard output has gone.
bool wait_until(uint64_t monotonic_us);

// The same, but also returns true early when `fd` becomes readable.
bool wait_readable(int fd, uint64_t monotonic_us);

// Whether a descriptor takes more output.
enum class Readiness { ready, late, stopped };

// Waits until there is room to write, which an error is too, since the write then tells it; or until
// the monotonic time, or until a signal asks for the end.
Readiness wait_writable(int fd, uint64_t monotonic_us);

// Ends the program by the signal that asked for the end, if one did, so that its caller sees the signal
// and not a number: a shell then stops the script or loop that the program ran in. Called last, when
// everything is tidied up.
void die_of_stop_signal();

// Ends the program by this signal, whatever was done about it before. Returns in the first process of a
// container, which only its own handlers end.
void die_of(int signal);

} // namespace kp::tool
