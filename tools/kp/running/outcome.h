// Prints problems, and names the exit codes that `kp` has beside the kinds of problems. The manual
// promises these numbers, so none of them ever changes.
#pragma once

#include "common/problem.h"

#include <string>
#include <vector>

namespace kp::tool {

constexpr int kTimeout = 124;
constexpr int kSignalBase = 128; // plus the number of the signal that ended the program

// Prints one line on standard error, unless its reader does not take it in time.
void complain(const std::string &text);

// Prints the problem and returns its kind, which is an exit code.
int complain(const Problem &problem);

// The exit code of a command that goes on after a problem: the first that is not 0 stays.
class Outcome {
  public:
    // Prints the problem, or each of them.
    void note(const Problem &problem);
    void note(const std::vector<Problem> &problems);
    void note(int code);
    int code() const
    {
        return code_;
    }

  private:
    int code_ = kDone;
};

} // namespace kp::tool
