// Makes the metrics of the device's endpoints, as OpenMetrics text.
#pragma once

#include "common/device/endpoints.h"

namespace kp::web {

// Tells how many endpoints are in each state, how many are stopped and how many have lost their
// file. For each live one it tells the peers that it sends to, the peers that it has not accepted,
// and the bytes that it has not read, where that is known.
std::string mesh_metrics(const tool::Mesh &mesh);

} // namespace kp::web
