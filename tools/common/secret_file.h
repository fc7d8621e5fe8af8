// The rights of a file that holds a password or a token.
#pragma once

#include <string>

namespace kp::tool {

// Says what is wrong with the rights; an empty text when nothing is. Only the owner and the group
// may read the file, only the owner may write it, and the owner must be root or this process's
// user.
std::string secret_file_problem(const std::string &path);

} // namespace kp::tool
