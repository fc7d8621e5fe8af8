// Runs the command of a sandbox, hands signals on to it, and ends what it leaves behind.
#pragma once

#include <string>
#include <vector>

namespace kp::tool {

// What a command ends with that could not be started, as with other programs that start one.
enum : int { kNotRunnable = 126, kNotFound = 127 };

// Starts the command, and returns its wait status when it has ended and with it every process that it
// left behind: they are asked with SIGTERM, and after two seconds killed. So they are, and the command
// with them, when this process itself is killed.
// Signals of other processes are handed on; those of the terminal reach the command by themselves.
int run_to_the_end(std::vector<std::string> words);

// Ends this process as the wait status says: with the same code, or by the same signal.
[[noreturn]] void end_like(int wait_status);

} // namespace kp::tool
