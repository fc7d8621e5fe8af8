#include "problem.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kp::tool {

namespace {

int code_of_errno(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
        return kPermission;
    case ENOENT:
        return kNothing;
    case ELOOP:
    case ENOTDIR:
    case EISDIR:
        return kInvalid;
    default:
        return kLimit;
    }
}

} // namespace

Problem system_problem(const std::string &subject, int error)
{
    return {code_of_errno(error), subject + ": " + std::strerror(error)};
}

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
