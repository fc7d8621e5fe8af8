// Directories of the store in which no topic is left.
#pragma once

#include "collecting/deed.h"
#include "common/store/store_files.h"

namespace kp::tool {

// Says whether a directory is empty, has the owner, group and mode of its parent, and did not
// change since a time in microseconds since the epoch.
bool is_empty_and_unused(const std::string &directory, uint64_t unchanged_since_us);

// Removes a directory. The system refuses this when something lies in it by now.
Deed remove_empty_directory(const std::string &directory, Problem &problem);

} // namespace kp::tool
