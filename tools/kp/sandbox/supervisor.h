// Runs the command of a sandbox, hands signals on to it, and ends what it leaves behind.
#pragma once

#include <string>
#include <vector>

namespace kp::tool {

// The exit codes for a command that could not be started: for a reason of `kp` or the system, and
// for one of the command itself. Other programs that start one use the same.
enum : int { kNoSandbox = 125, kNotRunnable = 126, kNotFound = 127 };

// Starts the command and waits until it has ended. The processes that it leaves behind get SIGTERM
// and are killed two seconds later. Then it returns the command's wait status. When this process
// itself is killed, the command and all its processes are killed, too. Signals of other processes
// are handed on; those of the terminal reach the command by themselves.
int run_to_the_end(std::vector<std::string> words);

// Ends this process as the wait status says: with that code or by that signal.
[[noreturn]] void end_like(int wait_status);

} // namespace kp::tool
