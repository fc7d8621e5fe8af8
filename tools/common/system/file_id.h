// The identity of a file: it tells the file from all others on the device, also from a later one
// that has the same name.
#pragma once

#include <compare>
#include <sys/stat.h>
#include <sys/types.h>

namespace kp::tool {

struct FileId {
    dev_t device = 0;
    ino_t inode = 0;

    auto operator<=>(const FileId &) const = default;
};

inline FileId file_id(const struct stat &status)
{
    return {status.st_dev, status.st_ino};
}

} // namespace kp::tool
