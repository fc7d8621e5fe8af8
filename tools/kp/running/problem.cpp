#include "running/problem.h"

#include <cstdio>

namespace kp::tool {

void complain(const std::string &text)
{
    (void)std::fprintf(stderr, "kp: %s\n", text.c_str());
}

int complain(const Problem &problem)
{
    complain(problem.text);
    return problem.code;
}

void Outcome::note(const Problem &problem)
{
    note(complain(problem));
}

void Outcome::note(int code)
{
    if (code_ == kDone)
        code_ = code;
}

} // namespace kp::tool
