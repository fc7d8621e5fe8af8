// Finds and removes socket files that nobody listens on. A socket that is bound to its file is
// alive, even before it listens, and a file that was just made is left alone for a moment.
#pragma once

#include "collecting/deed.h"
#include "common/device/endpoints.h"

namespace kp::tool {

struct DeadSockets {
    std::vector<EndpointFile> files;
    int error = 0; // why the directory could not be read, or 0
};

DeadSockets find_dead_sockets();

// Removes the files. Directly before each removal it proves again that nobody listens. The results
// stand in the order of the files.
std::vector<DeedResult> remove_dead_sockets(const std::vector<EndpointFile> &files);

} // namespace kp::tool
