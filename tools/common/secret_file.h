// The rights of a file that holds a password or a token.
#pragma once

#include <string>

namespace kp::tool {

// What is wrong with them, or an empty text: others than its owner and group can read it, others than
// its owner can write it, or it belongs neither to root nor to this process's user.
std::string secret_file_problem(const std::string &path);

} // namespace kp::tool
