// The signals that tell a service something, as a descriptor to wait on.
#pragma once

#include "layout/unique_fd.h"

namespace kp::tool {

enum class Order { none, reload, leave };

class Signals {
  public:
    // Blocks the signals; to be called before any thread starts, so that they arrive here alone.
    static Signals take();

    int fd() const
    {
        return fd_.get();
    }
    // What the next signal says. SIGHUP is also what comes when the terminal closes that the
    // program was started from, and then says to leave.
    Order next() const;

  private:
    Signals(UniqueFd fd, bool had_terminal) : fd_(std::move(fd)), had_terminal_(had_terminal)
    {
    }

    UniqueFd fd_;
    bool had_terminal_;
};

} // namespace kp::tool
