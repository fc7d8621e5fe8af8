// What this process holds, and waiting for something to become so.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>

namespace kptest {

// Long enough for a loaded machine under a sanitizer; nobody waits so long unless a test fails.
constexpr std::chrono::seconds kDeadline{60};

// Waits until the condition holds. False when it does not hold within the deadline.
bool wait_until(const std::function<bool()> &condition,
                std::chrono::milliseconds deadline = kDeadline);

// Gives the open descriptors and what each refers to. Compare the results of two calls.
std::map<int, std::string> open_descriptors();

// Counts the threads of this process that have not ended.
int thread_count();

// Says whether every thread of a process sleeps, so that it has taken in what had come before.
bool is_at_rest(pid_t pid);

// Counts the mappings of files below a directory, by default those of segments.
int mapping_count(const std::string &directory = "/dev/shm/zu-kp/");

} // namespace kptest
