// The endpoints: dead ones, stuck ones, crowded ones, and sockets that others cannot reach.
#include "common/device/endpoints.h"
#include "common/doctor/finding.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "kp.h"

#include <cerrno>
#include <sys/stat.h>

namespace kp::tool {

namespace {

void check_owner(const Endpoint &endpoint, const std::string &name, Findings &findings)
{
    if (endpoint.owners.empty())
        return;
    const Process &owner = endpoint.owners.front();
    const std::string pid = std::to_string(owner.pid);
    const std::string unread = std::to_string(endpoint.unread.value_or(0));
    if (endpoint.is_stopped)
        findings.push_back({Severity::error, "peer-stopped", name,
                            process_text(owner) + " is stopped, with " + unread +
                                " bytes of notices unread; senders will wait for it",
                            "kill -CONT " + pid});
    else if (endpoint.unread.value_or(0) > kManyUnread)
        findings.push_back(
            {Severity::error, "peer-stuck", name,
             process_text(owner) + " does not read: " + unread + " bytes of notices wait",
             "kill " + pid});
    if (endpoint.owners.size() > 1)
        findings.push_back({Severity::warning, "peer-inherited", name,
                            "held by " + process_text(endpoint.owners[1]) +
                                " too, so that it will seem alive after its owner's end",
                            ""});
}

void check_endpoint(const Endpoint &endpoint, Findings &findings)
{
    const std::string name = escaped(endpoint.file.name);
    if (endpoint.liveness == Liveness::dead)
        findings.push_back({Severity::warning, "peer-dead", name,
                            "nobody listens on its socket (owner " +
                                user_name(endpoint.file.owner) + "), which costs every start 3 s",
                            "kp gc"});
    if (endpoint.liveness == Liveness::foreign)
        findings.push_back({Severity::warning, "peer-foreign", name, "is not a socket",
                            "rm " + shell_word(endpoint_path(endpoint.file.name))});
    if (endpoint.connections >= kManyConnections)
        findings.push_back({Severity::warning, "peer-crowded", name,
                            std::to_string(endpoint.connections) + " of " +
                                std::to_string(KP_MAX_PEERS) + " connections are taken",
                            ""});
    check_owner(endpoint, name, findings);
}

// Whoever connects to a socket needs the right to write to its file. If the groups of a user's
// process cannot be seen, this assumes that they are the right ones.
bool lets_connect(const EndpointFile &file, uid_t user,
                  const std::optional<std::set<gid_t>> &groups)
{
    if (user == 0) // whom no mode keeps out
        return true;
    if (user == file.owner)
        return file.mode & S_IWUSR;
    if (!groups)
        return file.mode & (S_IWGRP | S_IWOTH);
    return file.mode & (groups->contains(file.group) ? S_IWGRP : S_IWOTH);
}

// A live endpoint and what lets its process connect to others.
struct Member {
    const Endpoint *endpoint;
    std::optional<std::set<gid_t>> groups;
};

std::vector<Member> members_of(const Mesh &mesh)
{
    std::vector<Member> members;
    for (const Endpoint &endpoint : mesh.endpoints)
        if (endpoint.liveness == Liveness::live)
            members.push_back({&endpoint, endpoint.owners.empty()
                                              ? std::nullopt
                                              : groups_of(endpoint.owners.front().pid)});
    return members;
}

// An endpoint tells its changes to those who connect to it.
void check_socket_mode(const Endpoint &endpoint, const std::vector<Member> &members,
                       Findings &findings)
{
    std::string example;
    std::size_t others = 0;
    for (const auto &[member, groups] : members) {
        const Endpoint &other = *member;
        if (lets_connect(endpoint.file, other.file.owner, groups))
            continue;
        if (example.empty())
            example = escaped(other.file.name) + " (" + user_name(other.file.owner) + ")";
        else
            ++others;
    }
    if (!example.empty())
        findings.push_back({Severity::warning, "peer-umask", escaped(endpoint.file.name),
                            "mode " + mode_text(endpoint.file.mode) + " of its socket keeps " +
                                example + " and " + std::to_string(others) +
                                " more from connecting, so that they hear nothing of its changes",
                            "systemctl edit UNIT (UMask=0002 and one Group= for all)"});
}

// check_system() reports a directory that is missing or that is no directory.
void check_sight(const Mesh &mesh, Findings &findings)
{
    if (mesh.error != 0 && mesh.error != ENOENT && mesh.error != ENOTDIR)
        findings.push_back(unseen(kEndpointRoot, "cannot be read, so no endpoint was checked",
                                  system_problem("", mesh.error).kind));
}

} // namespace

std::size_t check_mesh(Findings &findings)
{
    const Mesh mesh = look_at_mesh();
    check_sight(mesh, findings);
    for (const Endpoint &endpoint : mesh.endpoints)
        check_endpoint(endpoint, findings);
    const std::vector<Member> members = members_of(mesh);
    for (const Member &member : members)
        check_socket_mode(*member.endpoint, members, findings);
    for (const UnixSocket &socket : mesh.lost)
        findings.push_back({Severity::error, "peer-lost", escaped(socket.path),
                            "somebody listens on it but its file is gone or another's: two "
                            "endpoints had one name, or it was removed",
                            "ss -xlp src " + shell_word(socket.path)});
    const std::size_t hidden = mesh.descriptors.unreadable.size();
    if (hidden > 0)
        findings.push_back({Severity::note, "hidden", "processes", hidden_processes_text(hidden),
                            "sudo kp doctor"});
    check_descriptors(mesh, findings);
    return mesh.endpoints.size();
}

} // namespace kp::tool
