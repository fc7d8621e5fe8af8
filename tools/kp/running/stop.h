// How the commands that run until they are told to stop wait, and how they end.
#pragma once

#include <cstdint>

namespace kp::tool {

// From now on a signal that would end the program is only remembered. Signals of crashes still end
// it.
void catch_stop_signals();

// The handler of these signals calls the function too, or nothing when it is null. It is called now
// when a signal came before.
void call_at_stop(void (*function)());

// The signal that asked for the end, or 0.
int stop_signal();

// Waits until the monotonic time. False, at once, when a signal asked for the end or the reader of
// standard output has gone.
bool wait_until(uint64_t monotonic_us);

// Does the same, but returns true earlier when `fd` becomes readable.
bool wait_readable(int fd, uint64_t monotonic_us);

// Whether a descriptor takes more output.
enum class Readiness { ready, late, stopped };

// Waits until the descriptor takes more output, until the monotonic time, or until a signal asks
// for the end. A descriptor with an error counts as ready: the next write then reports the error.
Readiness wait_writable(int fd, uint64_t monotonic_us);

// Ends the program by the signal that asked for the end, if there was one. Its caller then sees the
// signal and not a number: a shell stops the script or loop that the program ran in. To be called
// last, when everything is cleaned up.
void die_of_stop_signal();

// Ends the program by this signal, even if it was caught or ignored before. It returns only in the
// first process of a container, which no signal ends without a handler.
void die_of(int signal);

} // namespace kp::tool
