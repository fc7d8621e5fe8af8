// Directories of the store in which no topic is left.
#pragma once

#include "collecting/deed.h"
#include "common/store_files.h"

namespace kp::tool {

// Says whether one is empty, is nobody's in particular and did not change since a time in microseconds
// since the epoch.
bool is_empty_and_unused(const std::string &directory, uint64_t unchanged_since_us);

// Removes one, which the system refuses when something lies in it by now.
Deed remove_empty_directory(const std::string &directory, Problem &problem);

} // namespace kp::tool
