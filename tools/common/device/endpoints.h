// The endpoints of the device as they are now: who owns them, who is connected, and how much waits
// unread.
#pragma once

#include "common/device/unix_sockets.h"
#include "common/system/processes.h"

#include <optional>

namespace kp::tool {

constexpr unsigned kManyConnections = 28; // of 31
constexpr uint64_t kManyUnread = 16'384;  // bytes; about half of what makes a sender wait

enum class Liveness {
    live,
    dead,    // a socket file that nobody listens on
    foreign, // not a socket
    unknown, // the kernel does not tell, or not in this network namespace
};

struct Endpoint {
    EndpointFile file;
    Liveness liveness = Liveness::unknown;
    std::vector<Process> owners;    // more than one: a child has inherited the socket
    unsigned connections = 0;       // peers that it sends to
    unsigned waiting = 0;           // peers that it has not accepted yet
    std::optional<uint64_t> unread; // bytes that others sent and its process has not read
    bool is_stopped = false;        // its process does not run (SIGSTOP, debugger)
};

struct Mesh {
    std::vector<Endpoint> endpoints; // sorted by name
    std::vector<UnixSocket> lost;    // they listen, but their file is gone
    bool has_queues = false;
    int error = 0;           // why the directory could not be read
    Descriptors descriptors; // of all processes that may be looked into
};

Mesh look_at_mesh();

const char *liveness_name(Liveness liveness);

// Says whether connecting is refused. This proves that nobody listens, in this namespace or
// another. Call it only for sockets on which nobody listens here, so that no live peer is
// disturbed.
bool refuses_connections(const std::string &name);

} // namespace kp::tool
