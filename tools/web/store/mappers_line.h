// Says who has a topic open, as a line of JSON.
#pragma once

#include "store/surveyor.h"

namespace kp::web {

// Gives an object with `topic` and the keys of tool::add_mappers() for the file of this inode.
std::string mappers_line(const std::string &topic, ino_t inode, const Survey &survey);

} // namespace kp::web
