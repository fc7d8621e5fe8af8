// The terminal put back as it was when a crash ends the program in full-screen use.
#pragma once

namespace kp::tool {

// Made before the terminal's modes are changed, of which it keeps those on standard output.
class TerminalRescue {
  public:
    TerminalRescue();
    TerminalRescue(const TerminalRescue &) = delete;
    TerminalRescue &operator=(const TerminalRescue &) = delete;
    // From now on signals do what they did before.
    ~TerminalRescue();

    // From now on a crash restores the terminal, and then ends the program as it would have. Called
    // when the terminal's kind is known, once.
    void arm();

  private:
    bool is_armed_ = false;
    bool has_stack_ = false;
};

} // namespace kp::tool
