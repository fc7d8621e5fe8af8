#include "common/config/secret_file.h"

#include "common/problem.h"
#include "layout/unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// The group may read: so does a service's own copy of a credential look.
constexpr mode_t kForbidden = S_IWGRP | S_IXGRP | S_IRWXO;
constexpr std::size_t kMostBytes = 4096;

std::string rights_problem(const std::string &path, const struct stat &status)
{
    if (!S_ISREG(status.st_mode))
        return path + ": is no file";
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return path + ": belongs neither to root nor to the user of this program";
    if (status.st_mode & kForbidden)
        return path + ": others can read or change it; chmod 0600 or 0640";
    return {};
}

} // namespace

std::string secret_file_problem(const std::string &path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return system_text(path, errno);
    if (std::string problem = rights_problem(path, status); !problem.empty())
        return problem;
    return access(path.c_str(), R_OK) == 0 ? "" : system_text(path, errno);
}

// Another file can take its place after the first look, so the one that was opened is looked at,
// too.
Result<std::string> read_secret_file(const std::string &path)
{
    using Read = Result<std::string>;
    if (std::string problem = secret_file_problem(path); !problem.empty())
        return Read::failed(std::move(problem));
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0)
        return Read::failed(system_text(path, errno));
    if (std::string problem = rights_problem(path, status); !problem.empty())
        return Read::failed(std::move(problem));
    std::string text(kMostBytes, '\0');
    const ssize_t size = read(fd.get(), text.data(), text.size());
    if (size < 0)
        return Read::failed(system_text(path, errno));
    text.resize(static_cast<std::size_t>(size));
    return Read::of(std::move(text));
}

} // namespace kp::tool
