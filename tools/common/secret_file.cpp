#include "common/secret_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// The group may read: so does a service's own copy of a credential look.
constexpr mode_t kForbidden = S_IWGRP | S_IXGRP | S_IRWXO;

} // namespace

std::string secret_file_problem(const std::string &path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(status.st_mode))
        return path + ": is no file";
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return path + ": belongs neither to root nor to the user of this program";
    if (status.st_mode & kForbidden)
        return path + ": others can read or change it; chmod 0600 or 0640";
    if (access(path.c_str(), R_OK) != 0)
        return path + ": " + std::strerror(errno);
    return {};
}

} // namespace kp::tool
