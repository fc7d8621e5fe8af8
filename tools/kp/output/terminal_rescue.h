// Restores the terminal when a crash ends the program while it uses the whole screen.
#pragma once

namespace kp::tool {

// To be made before the terminal's modes are changed: it remembers those of standard output.
class TerminalRescue {
  public:
    TerminalRescue();
    TerminalRescue(const TerminalRescue &) = delete;
    TerminalRescue &operator=(const TerminalRescue &) = delete;
    // From now on signals do what they did before.
    ~TerminalRescue();

    // From now on a crash first restores the terminal, and then ends the program as always. To be
    // called once, when the terminal's kind is known.
    void arm();
    // Restores the terminal now, whatever it has not taken yet.
    void restore() const;

  private:
    bool is_armed_ = false;
    bool has_stack_ = false;
};

} // namespace kp::tool
