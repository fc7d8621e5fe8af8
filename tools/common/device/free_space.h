// The room that the store's file system has left for topics.
#pragma once

#include <optional>
#include <string>

namespace kp::tool {

struct FreeSpace {
    std::string directory; // where the file system is mounted
    unsigned long page_size = 0;
    unsigned long pages = 0; // 0: no limit
    unsigned long free_pages = 0;
    unsigned long inodes = 0; // 0: no limit
    unsigned long free_inodes = 0;
    bool is_read_only = false;
};

// Gives nothing when there is no such file system.
std::optional<FreeSpace> free_space_for_topics();

// Says what has run out, and where; "" when nothing has.
std::string shortage();

} // namespace kp::tool
