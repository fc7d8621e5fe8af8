// Keeps the library's descriptors above the numbers of the standard streams. A process that has
// closed those gives their numbers out again, and a line on standard error would then land in
// whatever lies there.
#pragma once

#include "layout/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace kp {

constexpr int kFirstHighFd = STDERR_FILENO + 1;

// Takes over a descriptor that was just made, and gives it a number of 3 or more: moved only when
// it lies below, since each further descriptor counts against somebody's limit. None, with errno
// set, when `fd` is none or cannot be moved. The moved one is closed on exec, like all of ours.
inline UniqueFd high_fd(int fd)
{
    UniqueFd made(fd);
    if (!made || fd >= kFirstHighFd)
        return made;
    return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, kFirstHighFd));
}

// The same for a directory that was just opened, before its first entry is read.
inline DIR *high_dir(DIR *opened)
{
    if (!opened || dirfd(opened) >= kFirstHighFd)
        return opened;
    const UniqueDir low(opened);
    UniqueFd moved(fcntl(dirfd(opened), F_DUPFD_CLOEXEC, kFirstHighFd));
    DIR *dir = moved ? fdopendir(moved.get()) : nullptr;
    if (dir)
        (void)moved.release(); // the stream's now
    return dir;
}

} // namespace kp
