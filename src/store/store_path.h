// Reaching what lies below the store's root without being led out of it. Whoever may write in the
// store is not to be trusted with the rights of whoever opens a topic there, so a link among the
// directories of a path, the root itself included, is followed only when root or the effective
// user owns it. SECURITY.md says the same to users.
#pragma once

#include "layout/unique_fd.h"

#include <cerrno>
#include <dirent.h>
#include <optional>

namespace kp {

// The error of a path that leads through a link of another user. None of the calls made here gives
// it for another reason.
constexpr int kForeignLink = EXDEV;

// The directory that a path leads to, and the last level of the path with the slashes behind it.
struct StorePlace {
    UniqueFd directory;
    const char *name;
};

// Finds the directory of a file; nullopt with errno set. The name points into `path`.
std::optional<StorePlace> find_place(const char *path);

// Opens a file with mode 0666 for a new one. O_NOFOLLOW, O_NONBLOCK and O_CLOEXEC are added to the
// flags. None with errno set.
UniqueFd open_in_store(const char *path, int flags);

// Opens a directory for listing it; null with errno set. The caller owns the stream.
DIR *open_store_directory(const char *path);

// Says whether a path leads to something, as access() does: a link at its end is followed.
bool exists_in_store(const char *path);

// Makes the missing directories above the last level of a path, which it changes while it works. A
// directory that cannot be made shows when the file is opened.
void make_directories(char *path);

} // namespace kp
