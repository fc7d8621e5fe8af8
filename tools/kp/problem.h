// What the exit code of `kp` says. The manual promises these numbers, so none of them ever changes.
#pragma once

#include <string>

namespace kp::tool {

enum ExitCode : int {
    kDone = 0,
    kNothing = 1,    // nothing matched, or a condition is false
    kUsage = 2,      // wrong arguments, or a value that does not fit the topic's type
    kPermission = 3, // not allowed
    kInvalid = 4,    // a file that is no segment, or a segment that makes no sense
    kLimit = 5,      // a limit was reached, or a peer is in trouble
    kTimeout = 124,
    kSignalBase = 128 // plus the number of the signal that ended the program
};

// Why something could not be done, in words for standard error.
struct Problem {
    int code = kDone;
    std::string text;
};

// The problem that a system call's errno stands for, told about `subject`.
Problem system_problem(const std::string &subject, int error);

// One line on standard error.
void complain(const std::string &text);

// Prints the problem and returns its code.
int complain(const Problem &problem);

// The code of a command that goes on after trouble: the first that is not 0 stays.
class Outcome {
  public:
    void note(const Problem &problem);
    void note(int code);
    int code() const
    {
        return code_;
    }

  private:
    int code_ = kDone;
};

} // namespace kp::tool
