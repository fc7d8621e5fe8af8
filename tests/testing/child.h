// A second process under a test's control. It is killed and reaped, by its own process id, when the
// object ends, and dies with the test's process in any case.
#pragma once

#include "testing/process.h"

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kptest {

// One side of the two pipes between the processes, which carry lines of text.
class Channel {
  public:
    Channel(int read_fd, int write_fd) : read_fd_(read_fd), write_fd_(write_fd)
    {
    }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel();

    // Sends a line. False when the other side is gone.
    bool tell(const std::string &line) const;
    // Gives the next line, or nothing when the other side is gone or silent for so long.
    std::optional<std::string> hear(std::chrono::milliseconds deadline = kDeadline);

  private:
    int read_fd_;
    int write_fd_;
    std::string pending_;
};

class ChildProcess {
  public:
    // Forks and runs `body` in the child, whose exit status is the result; 99 when it throws. Fork
    // before the test starts threads. Don't assert in the child, since nobody sees its failures.
    explicit ChildProcess(const std::function<int(Channel &parent)> &body);
    // Executes a program. The channel is its standard input and output.
    explicit ChildProcess(const std::vector<std::string> &command);
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;
    ~ChildProcess();

    pid_t pid() const
    {
        return pid_;
    }
    Channel &channel()
    {
        return *channel_;
    }
    bool tell(const std::string &line) const
    {
        return channel_->tell(line);
    }
    std::optional<std::string> hear(std::chrono::milliseconds deadline = kDeadline)
    {
        return channel_->hear(deadline);
    }

    void signal(int number) const;
    // Gives the exit status, 128 plus the signal's number when one killed it, or nothing when it
    // still runs after the deadline.
    std::optional<int> wait(std::chrono::milliseconds deadline = kDeadline);

  private:
    void start(const std::function<void(int read_fd, int write_fd)> &child_side);

    pid_t pid_ = -1;
    std::optional<int> status_;
    std::optional<Channel> channel_;
};

// Forks a child that runs `body` once all other threads sleep, and waits for it without a deadline:
// 0 when `body` gave true.
int status_of_child(const std::function<bool()> &body);

} // namespace kptest
