// Runs an operation again and again while each call that it makes fails in turn, first once and
// then for ever, and looks after each point whether the process is as it was before.
#pragma once

#include <functional>
#include <string>

namespace kpfault {

struct Scenario {
    std::string name;
    // What is done before a fault is armed, and undone when the fault is gone.
    std::function<void()> set_up = [] {};
    std::function<void()> tear_down = [] {};
    // Runs the operation and what undoes it. Says whether all of it succeeded.
    std::function<bool()> run;
    // The calls of all its threads fail, else those of the thread that runs it.
    bool has_threads = false;
};

// Waits for what the other threads of an operation do: briefly once a call has failed, since it may
// never come, and else for as long as a loaded machine may take.
bool wait_patiently(const std::function<bool()> &condition);

// Fails the test for every point after which something is not as it should be. Prints the number
// of points.
void fail_every_call(const Scenario &scenario);

} // namespace kpfault
