// Gives a sandbox a directory of its own. Everything beside it stays that of the machine.
#pragma once

#include "common/problem.h"

#include <string>

namespace kp::tool {

// Makes `name` in `parent`, which is a directory of the system, a new empty directory in memory. It
// has the rights of the machine's one, where there is one that this process may give. Needs a mount
// namespace of one's own; the machine sees nothing of it. False with a problem.
bool give_own_directory(const std::string &parent, const std::string &name, Problem &problem);

} // namespace kp::tool
