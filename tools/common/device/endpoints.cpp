#include "common/device/endpoints.h"

#include "common/system/socket_probe.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <sys/stat.h>

namespace kp::tool {

namespace {

// Everything that one look at the system gives, so that its parts fit together.
struct View {
    UnixSockets sockets;
    Descriptors descriptors;
    std::map<ino_t, const UnixSocket *> by_inode;
};

std::vector<pid_t> holders_of(const View &view, ino_t inode)
{
    const auto found = view.descriptors.of_socket.find(inode);
    return found == view.descriptors.of_socket.end() ? std::vector<pid_t>() : found->second;
}

// The bytes that wait in connections to other endpoints which one of these processes holds.
uint64_t unread_bytes(const View &view, const std::vector<Process> &owners,
                      const std::set<ino_t> &mesh_ends)
{
    uint64_t sum = 0;
    for (const ino_t inode : mesh_ends) {
        const auto socket = view.by_inode.find(inode);
        const auto holders = holders_of(view, inode);
        const bool own = std::any_of(owners.begin(), owners.end(), [&](const Process &owner) {
            return std::find(holders.begin(), holders.end(), owner.pid) != holders.end();
        });
        if (own && socket != view.by_inode.end())
            sum += socket->second->receive_queue;
    }
    return sum;
}

void take_socket(const View &view, const UnixSocket &socket, Endpoint &endpoint)
{
    if (socket.state == UnixSocket::State::connected) {
        ++endpoint.connections;
        return;
    }
    endpoint.liveness = Liveness::live; // also before it listens, which takes microseconds
    endpoint.waiting = socket.receive_queue;
    for (const pid_t pid : holders_of(view, socket.inode)) {
        endpoint.owners.push_back(process_of(pid));
        endpoint.is_stopped = endpoint.is_stopped || endpoint.owners.back().state == 'T' ||
                              endpoint.owners.back().state == 't';
    }
}

Endpoint endpoint_of(const View &view, const EndpointFile &file)
{
    Endpoint endpoint;
    endpoint.file = file;
    endpoint.liveness = !file.is_socket         ? Liveness::foreign
                        : view.sockets.is_known ? Liveness::dead
                                                : Liveness::unknown;
    for (const UnixSocket &socket : view.sockets.sockets)
        if (file.is_socket && file.is_bound_by(socket))
            take_socket(view, socket, endpoint);
    return endpoint;
}

// The far ends of all connections to endpoints: what arrives there is a notice.
std::set<ino_t> far_ends(const View &view, const std::vector<Endpoint> &endpoints)
{
    std::set<ino_t> ends;
    for (const UnixSocket &socket : view.sockets.sockets)
        for (const Endpoint &endpoint : endpoints)
            if (socket.state == UnixSocket::State::connected && endpoint.file.is_bound_by(socket))
                ends.insert(socket.peer);
    return ends;
}

// A listening socket of this directory's file system whose file has been removed or replaced.
std::vector<UnixSocket> lost_listeners(const View &view, const std::vector<Endpoint> &endpoints)
{
    std::vector<UnixSocket> lost;
    struct stat status;
    if (stat(kEndpointRoot, &status) != 0)
        return lost;
    for (const UnixSocket &socket : view.sockets.sockets) {
        const bool is_here = socket.state == UnixSocket::State::listening &&
                             socket.path.starts_with(kEndpointDirectory) &&
                             socket.file_device == status.st_dev;
        const bool has_file =
            std::any_of(endpoints.begin(), endpoints.end(), [&socket](const Endpoint &endpoint) {
                return endpoint.file.is_bound_by(socket);
            });
        if (is_here && !has_file)
            lost.push_back(socket);
    }
    return lost;
}

} // namespace

Mesh look_at_mesh()
{
    View view{list_unix_sockets(), find_descriptors(), {}};
    for (const UnixSocket &socket : view.sockets.sockets)
        view.by_inode[socket.inode] = &socket;
    Mesh mesh;
    mesh.has_queues = view.sockets.has_queues;
    for (const EndpointFile &file : list_endpoint_files(&mesh.error))
        mesh.endpoints.push_back(endpoint_of(view, file));
    const std::set<ino_t> ends = far_ends(view, mesh.endpoints);
    for (Endpoint &endpoint : mesh.endpoints)
        if (mesh.has_queues && !endpoint.owners.empty())
            endpoint.unread = unread_bytes(view, endpoint.owners, ends);
    if (mesh.error == 0) // else files are there that were not seen
        mesh.lost = lost_listeners(view, mesh.endpoints);
    mesh.descriptors = std::move(view.descriptors);
    return mesh;
}

const char *liveness_name(Liveness liveness)
{
    switch (liveness) {
    case Liveness::live:
        return "live";
    case Liveness::dead:
        return "dead";
    case Liveness::foreign:
        return "foreign";
    default:
        return "unknown";
    }
}

bool refuses_connections(const std::string &name)
{
    return probe_socket(endpoint_path(name)) == ECONNREFUSED;
}

} // namespace kp::tool
