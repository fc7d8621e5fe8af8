// An endpoint as one JSON object, and a note on it.
#pragma once

#include "common/device/endpoints.h"

#include <nlohmann/json_fwd.hpp>

namespace kp::tool {

// A phrase that says what needs attention; empty when nothing does.
std::string note_of(const Endpoint &endpoint);

// The keys, which never change: name state pid program user connections max_connections unread
// not_accepted stopped note.
nlohmann::ordered_json peer_json(const Endpoint &endpoint);

} // namespace kp::tool
