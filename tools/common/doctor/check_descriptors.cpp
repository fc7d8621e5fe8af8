// Who comes near the limits of descriptors and inotify instances: an endpoint that has none left
// cannot accept a peer, and a new one cannot watch for its peers.
#include "common/device/endpoints.h"
#include "common/doctor/finding.h"
#include "kp.h"

#include <fstream>
#include <set>

namespace kp::tool {

namespace {

constexpr std::size_t kForEachPeer = 2; // one connection each way

bool is_nearly(std::size_t used, std::size_t limit)
{
    return used >= limit - limit / 10;
}

void check_process(const Process &owner, unsigned connections, const Mesh &mesh, Findings &findings)
{
    const auto use = mesh.descriptors.of_process.find(owner.pid);
    const auto limit = descriptor_limit(owner.pid);
    if (use == mesh.descriptors.of_process.end() || !limit)
        return;
    const std::size_t open = use->second.open;
    const std::size_t still_to_come =
        kForEachPeer * (KP_MAX_PEERS - std::min<unsigned>(connections, KP_MAX_PEERS));
    if (open + still_to_come <= *limit && !is_nearly(open, *limit))
        return;
    findings.push_back({Severity::warning, "process-descriptors", process_text(owner),
                        "has " + std::to_string(open) + " of " + std::to_string(*limit) +
                            " descriptors open; each further peer takes two",
                        "prlimit --pid " + std::to_string(owner.pid) + " --nofile=" +
                            std::to_string(std::max<std::size_t>(*limit * 2, 1024)) + ":"});
}

void check_inotify(const Mesh &mesh, Findings &findings)
{
    std::size_t limit = 0;
    if (!(std::ifstream("/proc/sys/fs/inotify/max_user_instances") >> limit))
        return;
    std::map<std::string, std::size_t> of_user;
    for (const auto &[pid, use] : mesh.descriptors.of_process)
        if (use.inotify > 0)
            of_user[process_of(pid).user] += use.inotify;
    for (const auto &[user, used] : of_user)
        if (is_nearly(used, limit))
            findings.push_back(
                {Severity::warning, "inotify-use", user,
                 "has " + std::to_string(used) + " of " + std::to_string(limit) +
                     " inotify instances; every endpoint takes one",
                 "sysctl fs.inotify.max_user_instances=" + std::to_string(limit * 2)});
}

} // namespace

void check_descriptors(const Mesh &mesh, Findings &findings)
{
    std::set<pid_t> seen;
    for (const Endpoint &endpoint : mesh.endpoints)
        for (const Process &owner : endpoint.owners)
            if (seen.insert(owner.pid).second)
                check_process(owner, endpoint.connections, mesh, findings);
    check_inotify(mesh, findings);
}

} // namespace kp::tool
