#include "sandbox/own_directory.h"

#include "common/store/store_levels.h"
#include "common/text/text.h"
#include "layout/unique_fd.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr int kLookFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr unsigned long kMountFlags = MS_NOSUID | MS_NODEV;

// A path that names what the descriptor stands for, whatever happens to its name.
std::string path_of(const UniqueFd &fd)
{
    return "/proc/self/fd/" + std::to_string(fd.get());
}

bool mount_memory(const UniqueFd &place, const struct stat &rights)
{
    std::array<char, 80> options;
    const int length =
        std::snprintf(options.data(), options.size(), "mode=%o,uid=%u,gid=%u",
                      static_cast<unsigned>(rights.st_mode & 07777), rights.st_uid, rights.st_gid);
    if (length < 0 || length >= static_cast<int>(options.size()))
        return false;
    return mount("tmpfs", path_of(place).c_str(), "tmpfs", kMountFlags, options.data()) == 0;
}

// In a user namespace only its own user has a number, so the directory is that user's.
bool cover(const UniqueFd &place)
{
    struct stat rights;
    if (fstat(place.get(), &rights) != 0)
        return false;
    if (geteuid() == 0 && mount_memory(place, rights))
        return true;
    rights.st_mode = 0755;
    rights.st_uid = geteuid();
    rights.st_gid = getegid();
    return mount_memory(place, rights);
}

// Something to bind an entry of another kind than a directory to.
bool make_place(int directory, const char *name)
{
    return UniqueFd(openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) ? true
                                                                                            : false;
}

bool copy_link(int from, int to, const char *name)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlinkat(from, name, target.data(), target.size() - 1);
    return length > 0 && symlinkat(target.data(), to, name) == 0;
}

// Shows the entry of the old directory in the new one. One that is gone meanwhile is no failure.
bool show_entry(const UniqueFd &old_parent, const UniqueFd &new_parent, const char *name)
{
    struct stat status;
    if (fstatat(old_parent.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (S_ISLNK(status.st_mode))
        return copy_link(old_parent.get(), new_parent.get(), name);
    const bool made = S_ISDIR(status.st_mode) ? mkdirat(new_parent.get(), name, 0755) == 0
                                              : make_place(new_parent.get(), name);
    const std::string from = path_of(old_parent) + "/" + name;
    const std::string to = path_of(new_parent) + "/" + name;
    return made && (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 ||
                    errno == ENOENT);
}

// A new parent in memory that shows all entries of the old one but `name`, which it has empty.
bool rebuild(const UniqueFd &old_parent, const std::string &parent, const std::string &name)
{
    struct stat rights;
    if (fstat(old_parent.get(), &rights) != 0 || !cover(old_parent))
        return false;
    const UniqueFd new_parent(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const UniqueDir entries = entries_of(old_parent);
    if (!new_parent || !entries)
        return false;
    while (const dirent *entry = entries.next())
        if (entry->d_name != name && !show_entry(old_parent, new_parent, entry->d_name))
            return false;
    return mkdirat(new_parent.get(), name.c_str(), 0755) == 0 &&
           chmod(path_of(new_parent).c_str(), rights.st_mode & 07777) == 0;
}

} // namespace

bool give_own_directory(const std::string &parent, const std::string &name, Problem &problem)
{
    const UniqueFd old_parent(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // A link is not followed: whoever put it there would choose what is covered.
    const UniqueFd place(old_parent ? openat(old_parent.get(), name.c_str(), kLookFlags) : -1);
    if (old_parent && (place ? cover(place) : rebuild(old_parent, parent, name)))
        return true;
    problem = system_problem("a " + parent + "/" + name + " of the sandbox's own", errno);
    return false;
}

} // namespace kp::tool
