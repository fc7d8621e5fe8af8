// A problem is what stands in the way of one thing that was asked for: words for the user, and a
// kind that a program can act on.
#pragma once

#include <string>

namespace kp::tool {

// The kinds. The program `kp` ends with these numbers and its manual promises them, so they never
// change.
enum ProblemKind : int {
    kDone = 0,       // there is no problem
    kNothing = 1,    // nothing matched, or a condition is false
    kUsage = 2,      // wrong arguments, or a value that does not fit the topic's type
    kPermission = 3, // not allowed
    kInvalid = 4,    // a file that is no segment, or a segment that makes no sense
    kLimit = 5,      // a limit was reached, or a peer does not answer
};

struct Problem {
    ProblemKind kind = kDone;
    std::string text; // whole words, safe to show
};

// What the errno of a system call says, told about `subject`: as words, and as a problem.
std::string system_text(const std::string &subject, int error);
Problem system_problem(const std::string &subject, int error);

} // namespace kp::tool
