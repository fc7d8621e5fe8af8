// The Unix-domain sockets of this network namespace. The kernel lists them for every user. Nothing
// here connects to a socket, so no peer notices.
#pragma once

#include "layout/notice.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace kp::tool {

// kEndpointDirectory as messages name it: without the slash at its end.
constexpr const char *kEndpointRoot = "/run/providers";
static_assert(std::string_view(kEndpointDirectory).starts_with(kEndpointRoot) &&
              std::string_view(kEndpointDirectory).substr(std::string_view(kEndpointRoot).size()) ==
                  "/");

// The place of an endpoint's socket.
inline std::string endpoint_path(const std::string &name)
{
    return kEndpointDirectory + name;
}

struct UnixSocket {
    enum class State {
        listening,
        connected,
        bound, // it has its file, but does not listen yet
    };

    ino_t inode = 0;
    ino_t peer = 0; // the inode of the other end
    std::string path;
    dev_t file_device = 0; // of the file that it is bound to, 0 if unknown
    ino_t file_inode = 0;
    State state = State::connected;
    // Of a listening socket: connections that are not accepted yet, and the most that may wait. Of
    // another one: bytes that are not read yet.
    uint32_t receive_queue = 0;
    uint32_t queue_limit = 0;
};

struct UnixSockets {
    std::vector<UnixSocket> sockets;
    bool is_known = false;   // false: neither source could be read
    bool has_queues = false; // false: the kernel offers no socket diagnosis, only /proc/net/unix
};

UnixSockets list_unix_sockets();

// A socket file below /run/providers.
struct EndpointFile {
    std::string name;
    dev_t device;
    ino_t inode;
    uid_t owner;
    gid_t group;
    mode_t mode;
    bool is_socket;
    uint64_t made_us; // the file's time, microseconds since the epoch

    bool is_bound_by(const UnixSocket &socket) const;
};

// Lists the files, sorted by name. The list is empty if the directory is missing or cannot be read;
// `error` then gets the errno that says why, else 0.
std::vector<EndpointFile> list_endpoint_files(int *error = nullptr);

} // namespace kp::tool
