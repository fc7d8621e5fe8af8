// Gives ncurses a descriptor to write to, so that a terminal that takes nothing cannot hold up the
// end.
#pragma once

#include <cstdio>

namespace kp::tool {

// It is a descriptor of its own for the terminal. ncurses goes on with a write that a signal
// interrupted, for ever when nobody reads; so the signal that asks for the end makes the descriptor
// one that takes all and shows nothing. There is one at a time.
class ScreenOutput {
  public:
    ScreenOutput();
    ScreenOutput(const ScreenOutput &) = delete;
    ScreenOutput &operator=(const ScreenOutput &) = delete;
    ~ScreenOutput();

    // It is null when there is no descriptor left.
    std::FILE *file() const
    {
        return file_;
    }

  private:
    std::FILE *file_ = nullptr;
};

} // namespace kp::tool
