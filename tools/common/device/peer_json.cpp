#include "common/device/peer_json.h"

#include "kp.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

std::string note_of(const Endpoint &endpoint)
{
    if (endpoint.liveness == Liveness::dead)
        return "dead: nobody listens (kp gc removes it)";
    if (endpoint.liveness == Liveness::foreign)
        return "not a socket";
    if (endpoint.is_stopped)
        return "stopped: senders will wait for it";
    if (endpoint.unread.value_or(0) > kManyUnread)
        return "does not read its notices";
    if (endpoint.owners.size() > 1)
        return "a child process has inherited the socket";
    if (endpoint.connections >= kManyConnections)
        return "nearly out of connections";
    return endpoint.waiting > 0 ? std::to_string(endpoint.waiting) + " not accepted yet" : "";
}

nlohmann::ordered_json peer_json(const Endpoint &endpoint)
{
    nlohmann::ordered_json object;
    const bool known = !endpoint.owners.empty();
    object["name"] = endpoint.file.name;
    object["state"] = liveness_name(endpoint.liveness);
    object["pid"] =
        known ? nlohmann::ordered_json(endpoint.owners.front().pid) : nlohmann::ordered_json();
    object["program"] =
        known ? nlohmann::ordered_json(endpoint.owners.front().program) : nlohmann::ordered_json();
    object["user"] = known ? endpoint.owners.front().user : user_name(endpoint.file.owner);
    object["connections"] = endpoint.connections;
    object["max_connections"] = static_cast<int>(KP_MAX_PEERS);
    object["unread"] =
        endpoint.unread ? nlohmann::ordered_json(*endpoint.unread) : nlohmann::ordered_json();
    object["not_accepted"] = endpoint.waiting;
    object["stopped"] = endpoint.is_stopped;
    object["note"] = note_of(endpoint);
    return object;
}

} // namespace kp::tool
