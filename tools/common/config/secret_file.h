// A file that holds a password or a token, and its rights.
#pragma once

#include "common/result.h"

#include <string>

namespace kp::tool {

// Says what is wrong with the rights; an empty text when nothing is. Only the owner and the group
// may read the file, only the owner may write it, and the owner must be root or this process's
// user.
std::string secret_file_problem(const std::string &path);

// What stands in the file, when its rights are good; a line that names the file otherwise. No more
// than 4096 bytes are read.
Result<std::string> read_secret_file(const std::string &path);

} // namespace kp::tool
