// The name and password for the broker, from a file that nobody may read but its owner
// and its group.
#pragma once

#include "common/result.h"

#include <string>

namespace kp::mqtt {

struct Credentials {
    std::string user;
    std::string password;
};

// Reads a credentials file. Refuses one that others than its owner and group can read, that others
// than its owner can write, or that belongs neither to root nor to this user.
tool::Result<Credentials> read_credentials(const std::string &path);

} // namespace kp::mqtt
