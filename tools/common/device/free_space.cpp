#include "common/device/free_space.h"

#include "layout/segment.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace kp::tool {

namespace {

constexpr const char *kSharedMemory = "/dev/shm";

// The store may be a mount of its own.
std::string mount_of_store()
{
    struct stat store;
    struct stat above;
    const bool is_own = stat(kStoreRoot, &store) == 0 && stat(kSharedMemory, &above) == 0 &&
                        store.st_dev != above.st_dev;
    return is_own ? kStoreRoot : kSharedMemory;
}

} // namespace

std::optional<FreeSpace> free_space_for_topics()
{
    FreeSpace room{mount_of_store()};
    struct statvfs status;
    if (statvfs(room.directory.c_str(), &status) != 0)
        return std::nullopt;
    room.page_size = status.f_frsize;
    room.pages = status.f_blocks;
    room.free_pages = status.f_bavail;
    room.inodes = status.f_files;
    room.free_inodes = status.f_favail;
    room.is_read_only = status.f_flag & ST_RDONLY;
    return room;
}

std::string shortage()
{
    const auto room = free_space_for_topics();
    if (!room)
        return "";
    const bool no_pages = room->pages > 0 && room->free_pages == 0;
    const bool no_inodes = room->inodes > 0 && room->free_inodes == 0;
    if (!no_pages && !no_inodes)
        return "";
    const std::string what = !no_pages ? "inodes" : no_inodes ? "pages and inodes" : "pages";
    return "no free " + what + " in " + room->directory + " (see kp doctor)";
}

} // namespace kp::tool
