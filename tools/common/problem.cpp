#include "common/problem.h"

#include <cerrno>
#include <cstring>

namespace kp::tool {

namespace {

ProblemKind kind_of(int error)
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

std::string system_text(const std::string &subject, int error)
{
    return subject + ": " + std::strerror(error);
}

Problem system_problem(const std::string &subject, int error)
{
    return {kind_of(error), system_text(subject, error)};
}

} // namespace kp::tool
