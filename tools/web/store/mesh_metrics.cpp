#include "store/mesh_metrics.h"

#include "common/values/topic_metrics.h"

namespace kp::web {

namespace {

using tool::Liveness;

std::string sample(const std::string &name, const std::string &label, uint64_t value)
{
    return name + (label.empty() ? "" : "{" + label + "}") + " " + std::to_string(value) + "\n";
}

std::string states(const tool::Mesh &mesh, const std::string &name)
{
    std::string samples;
    for (const Liveness state :
         {Liveness::live, Liveness::dead, Liveness::foreign, Liveness::unknown}) {
        uint64_t count = 0;
        for (const tool::Endpoint &endpoint : mesh.endpoints)
            count += endpoint.liveness == state;
        samples += sample(name, tool::metric_label("state", tool::liveness_name(state)), count);
    }
    return samples;
}

struct Family {
    std::string name;
    const char *help;
    std::string samples = {};

    void add(const tool::Endpoint &endpoint, uint64_t value)
    {
        samples += sample(name, tool::metric_label("endpoint", endpoint.file.name), value);
    }
    std::string text() const
    {
        return tool::gauge_family(name, help, samples);
    }
};

} // namespace

std::string mesh_metrics(const tool::Mesh &mesh)
{
    Family all{"zu_kp_endpoints", "Endpoints, by what became of them; dead ones are sockets that "
                                  "nobody listens on."};
    Family stopped{"zu_kp_stopped_endpoints", "Endpoints whose process does not run on."};
    Family lost{"zu_kp_lost_endpoints", "Endpoints that listen, but whose file is gone."};
    Family peers{"zu_kp_endpoint_peers", "Peers that an endpoint sends to."};
    Family waiting{"zu_kp_endpoint_waiting_peers", "Peers that an endpoint has not accepted."};
    Family unread{"zu_kp_endpoint_unread_bytes", "Notices that an endpoint has not read."};
    uint64_t stopped_count = 0;
    for (const tool::Endpoint &endpoint : mesh.endpoints) {
        stopped_count += endpoint.is_stopped;
        if (endpoint.liveness != Liveness::live)
            continue;
        peers.add(endpoint, endpoint.connections);
        waiting.add(endpoint, endpoint.waiting);
        if (endpoint.unread)
            unread.add(endpoint, *endpoint.unread);
    }
    all.samples = states(mesh, all.name);
    stopped.samples = sample(stopped.name, "", stopped_count);
    lost.samples = sample(lost.name, "", mesh.lost.size());
    return all.text() + stopped.text() + lost.text() + peers.text() + waiting.text() +
           unread.text();
}

} // namespace kp::web
