#include "store/mesh_metrics.h"

#include "common/values/topic_metrics.h"

#include <algorithm>

namespace kp::web {

namespace {

using tool::Gauge;
using tool::Liveness;

void add_states(const tool::Mesh &mesh, Gauge &gauge)
{
    for (const Liveness state :
         {Liveness::live, Liveness::dead, Liveness::foreign, Liveness::unknown}) {
        const auto count = std::ranges::count(mesh.endpoints, state, &tool::Endpoint::liveness);
        gauge.add(tool::metric_label("state", tool::liveness_name(state)), std::to_string(count));
    }
}

} // namespace

std::string mesh_metrics(const tool::Mesh &mesh)
{
    Gauge all{"zu_kp_endpoints", "Endpoints, by what became of them; dead ones are sockets that "
                                 "nobody listens on."};
    Gauge stopped{"zu_kp_stopped_endpoints", "Endpoints whose process does not run on."};
    Gauge lost{"zu_kp_lost_endpoints", "Endpoints that listen, but whose file is gone."};
    Gauge peers{"zu_kp_endpoint_peers", "Peers that an endpoint sends to."};
    Gauge waiting{"zu_kp_endpoint_waiting_peers", "Peers that an endpoint has not accepted."};
    Gauge unread{"zu_kp_endpoint_unread_bytes", "Notices that an endpoint has not read."};
    uint64_t stopped_count = 0;
    for (const tool::Endpoint &endpoint : mesh.endpoints) {
        stopped_count += endpoint.is_stopped;
        if (endpoint.liveness != Liveness::live)
            continue;
        const std::string label = tool::metric_label("endpoint", endpoint.file.name);
        peers.add(label, std::to_string(endpoint.connections));
        waiting.add(label, std::to_string(endpoint.waiting));
        if (endpoint.unread)
            unread.add(label, std::to_string(*endpoint.unread));
    }
    add_states(mesh, all);
    stopped.add("", std::to_string(stopped_count));
    lost.add("", std::to_string(mesh.lost.size()));
    return all.text() + stopped.text() + lost.text() + peers.text() + waiting.text() +
           unread.text();
}

} // namespace kp::web
