#include "running/outcome.h"

#include "running/standard_stream.h"

#include <unistd.h>

namespace kp::tool {

void complain(const std::string &text)
{
    static const StandardStream stream(STDERR_FILENO);
    (void)stream.write("kp: " + text + "\n");
}

int complain(const Problem &problem)
{
    complain(problem.text);
    return problem.kind;
}

void Outcome::note(const Problem &problem)
{
    note(complain(problem));
}

void Outcome::note(const std::vector<Problem> &problems)
{
    for (const Problem &problem : problems)
        note(problem);
}

void Outcome::note(int code)
{
    if (code_ == kDone)
        code_ = code;
}

} // namespace kp::tool
