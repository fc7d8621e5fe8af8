#include "common/store/store_levels.h"

#include "common/names/topic_name.h"
#include "common/text/text.h"
#include "layout/segment.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace kp::tool {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kDirectoryMode = 0777; // less the umask, as the library makes them

bool is_store_no_directory()
{
    struct stat status;
    return stat(kStoreRoot, &status) == 0 && !S_ISDIR(status.st_mode);
}

bool is_link(int directory, const std::string &name)
{
    struct stat status;
    return fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

UniqueFd make_level(int parent, const std::string &name)
{
    UniqueFd fd = open_level(parent, name);
    if (fd || errno != ENOENT ||
        (mkdirat(parent, name.c_str(), kDirectoryMode) != 0 && errno != EEXIST))
        return fd;
    return open_level(parent, name);
}

// The root stands in a directory where everybody may make files. It may be a link, but only one
// that root or this user made.
UniqueFd open_root()
{
    UniqueFd fd(open(kStoreRoot, kDirectoryFlags | O_NOFOLLOW));
    struct stat link;
    if (fd || errno != ENOTDIR || lstat(kStoreRoot, &link) != 0 || !S_ISLNK(link.st_mode))
        return fd;
    if (link.st_uid == 0 || link.st_uid == geteuid())
        return UniqueFd(open(kStoreRoot, kDirectoryFlags));
    errno = ELOOP;
    return fd;
}

UniqueFd make_root()
{
    UniqueFd fd = open_root();
    if (fd || errno != ENOENT || (mkdir(kStoreRoot, kDirectoryMode) != 0 && errno != EEXIST))
        return fd;
    return open_root();
}

// Opens level after level below the root, each through `open_next`. Empty with errno set.
template <typename OpenNext>
UniqueFd open_levels(UniqueFd fd, std::string_view directory, OpenNext open_next)
{
    for (const std::string_view level : split_levels(directory)) {
        if (!fd)
            break;
        UniqueFd next = open_next(fd.get(), std::string(level));
        fd.reset(next.release());
    }
    return fd;
}

} // namespace

UniqueFd open_level(int parent, const std::string &name)
{
    UniqueFd fd(openat(parent, name.c_str(), kDirectoryFlags | O_NOFOLLOW));
    if (!fd && errno == ENOTDIR)
        errno = is_link(parent, name) ? ELOOP : ENOTDIR;
    return fd;
}

UniqueFd open_levels(std::string_view directory)
{
    return open_levels(open_root(), directory, open_level);
}

UniqueFd make_levels(std::string_view directory)
{
    return open_levels(make_root(), directory, make_level);
}

UniqueDir entries_of(const UniqueFd &directory)
{
    UniqueFd fd(openat(directory.get(), ".", kDirectoryFlags));
    DIR *stream = fd ? fdopendir(fd.get()) : nullptr;
    if (stream)
        (void)fd.release(); // the stream's from now on
    return UniqueDir(stream);
}

bool is_empty_directory(const UniqueFd &directory)
{
    const UniqueDir entries = entries_of(directory);
    return entries && !entries.next();
}

std::string last_level(const std::string &name)
{
    return name.substr(name.rfind('/') + 1);
}

Problem topic_problem(const std::string &topic, int error)
{
    const std::string name = escaped(topic.empty() ? kStoreRoot : topic);
    if (error == ENOENT)
        return {kNothing, name + ": no such topic"};
    if (error == ENOTDIR && is_store_no_directory())
        return {kInvalid, std::string(kStoreRoot) + ": not a directory, so there are no topics"};
    if (error == ENOTDIR)
        return {kNothing, name + ": no such topic (one of its levels is a topic itself)"};
    if (error == ELOOP)
        return {kInvalid, name + ": not a segment (a symbolic link)"};
    return system_problem(name, error);
}

} // namespace kp::tool
