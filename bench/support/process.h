// Children and brokers of a run, ended with their owner.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace bench {

// A child process; the destructor ends and reaps it. A child ends when its parent dies.
class Child {
  public:
    explicit Child(pid_t pid = -1) : pid_(pid)
    {
    }
    Child(Child &&other) noexcept : pid_(std::exchange(other.pid_, -1))
    {
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    Child &operator=(Child &&) = delete;
    ~Child();

    pid_t pid() const
    {
        return pid_;
    }
    // Waits for the child to end by itself. Says whether it did so with status 0.
    bool wait();

  private:
    pid_t pid_;
};

// Runs `body` in a forked child, which ends with its result.
Child run_in_child(const std::function<int()> &body);

// Starts a program with its output thrown away.
Child run_program(const std::vector<std::string> &command);

// Waits until `condition` holds. Ends the whole program with a message after the time.
void wait_until(const std::function<bool()> &condition, unsigned timeout_ms, const char *what);

} // namespace bench
