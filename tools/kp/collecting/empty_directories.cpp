#include "collecting/empty_directories.h"

#include "common/clock.h"
#include "common/store/store_files.h"
#include "common/store/store_levels.h"
#include "common/text/text.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

// A directory that somebody has given rights of its own is kept.
bool is_empty_and_unused(const std::string &directory, uint64_t unchanged_since_us)
{
    TopicOpener opener;
    Problem problem;
    const auto place = opener.locate(directory, problem);
    struct stat own;
    struct stat above;
    if (!place || fstat(place->directory, &above) != 0 ||
        fstatat(place->directory, place->name.c_str(), &own, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    const bool is_common =
        own.st_uid == above.st_uid && own.st_gid == above.st_gid && own.st_mode == above.st_mode;
    return is_common && to_us(own.st_mtim) <= unchanged_since_us &&
           is_empty_directory(open_level(place->directory, place->name));
}

Deed remove_empty_directory(const std::string &directory, Problem &problem)
{
    TopicOpener opener;
    const auto place = opener.locate(directory, problem);
    if (!place)
        return Deed::changed;
    if (unlinkat(place->directory, place->name.c_str(), AT_REMOVEDIR) == 0)
        return Deed::done;
    if (errno == ENOTEMPTY || errno == ENOENT || errno == ENOTDIR)
        return Deed::changed;
    problem = system_problem(escaped(directory), errno);
    return Deed::failed;
}

} // namespace kp::tool
