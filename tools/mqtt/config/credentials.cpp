#include "config/credentials.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::mqtt {

namespace {

// The group may read: so does a service's own copy of a credential look.
constexpr mode_t kForbidden = S_IWGRP | S_IXGRP | S_IRWXO;

std::string without_line_end(std::string line)
{
    if (line.ends_with('\r'))
        line.pop_back();
    return line;
}

} // namespace

std::string secret_file_problem(const std::string &path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(status.st_mode))
        return path + ": is no file";
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return path + ": belongs neither to root nor to the user of the bridge";
    if (status.st_mode & kForbidden)
        return path + ": others can read or change it; chmod 0600 or 0640";
    if (access(path.c_str(), R_OK) != 0)
        return path + ": " + std::strerror(errno);
    return {};
}

tool::Result<Credentials> read_credentials(const std::string &path)
{
    if (std::string problem = secret_file_problem(path); !problem.empty())
        return tool::Result<Credentials>::failed(std::move(problem));
    std::ifstream file(path);
    Credentials credentials;
    if (!std::getline(file, credentials.user) || without_line_end(credentials.user).empty())
        return tool::Result<Credentials>::failed(path + ": the first line must be the user's name");
    if (!std::getline(file, credentials.password))
        return tool::Result<Credentials>::failed(path + ": the second line must be the password");
    credentials.user = without_line_end(credentials.user);
    credentials.password = without_line_end(credentials.password);
    return tool::Result<Credentials>::of(std::move(credentials));
}

} // namespace kp::mqtt
