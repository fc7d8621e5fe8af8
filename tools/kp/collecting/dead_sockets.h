// Socket files that nobody listens on, and their removal. What is bound is alive, also before it
// listens, and what has just been made is given a moment.
#pragma once

#include "collecting/deed.h"
#include "common/device/endpoints.h"

namespace kp::tool {

struct DeadSockets {
    std::vector<EndpointFile> files;
    int error = 0; // why the directory could not be read, or 0
};

DeadSockets find_dead_sockets();

// Removes them, each after a second proof that is as fresh as can be. The results stand in the order
// of the files.
std::vector<DeedResult> remove_dead_sockets(const std::vector<EndpointFile> &files);

} // namespace kp::tool
