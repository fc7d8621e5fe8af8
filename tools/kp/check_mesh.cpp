// The endpoints: dead ones, stuck ones, crowded ones, and sockets that others cannot reach.
#include "endpoints.h"
#include "escape.h"
#include "finding.h"
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
        findings.push_back(
            {Severity::warning, "peer-foreign", name, "is not a socket",
             "rm " + shell_word(std::string(kProvidersRoot) + "/" + endpoint.file.name)});
    if (endpoint.connections >= kManyConnections)
        findings.push_back({Severity::warning, "peer-crowded", name,
                            std::to_string(endpoint.connections) + " of " +
                                std::to_string(KP_MAX_PEERS) + " connections are taken",
                            ""});
    check_owner(endpoint, name, findings);
}

// A directory that is missing, or is none, is told with the other directories.
void check_sight(const Mesh &mesh, Findings &findings)
{
    if (mesh.error != 0 && mesh.error != ENOENT && mesh.error != ENOTDIR)
        findings.push_back(unseen(kProvidersRoot, "cannot be read, so no endpoint was checked",
                                  system_problem("", mesh.error).code));
}

} // namespace

std::size_t check_mesh(Findings &findings)
{
    const Mesh mesh = look_at_mesh();
    check_sight(mesh, findings);
    for (const Endpoint &endpoint : mesh.endpoints)
        check_endpoint(endpoint, findings);
    for (const UnixSocket &socket : mesh.lost)
        findings.push_back({Severity::error, "peer-lost", escaped(socket.path),
                            "somebody listens on it but its file is gone or another's: two "
                            "endpoints had one name, or it was removed",
                            "ss -xlp src " + shell_word(socket.path)});
    const std::size_t hidden = mesh.descriptors.unreadable.size();
    if (hidden > 0)
        findings.push_back({Severity::note, "hidden", "processes",
                            std::to_string(hidden) + " show only to root", "sudo kp doctor"});
    check_descriptors(mesh, findings);
    return mesh.endpoints.size();
}

} // namespace kp::tool
