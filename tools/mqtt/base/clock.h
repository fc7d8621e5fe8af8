// The bridge's clock, for all its times and delays. Nobody can set it.
#pragma once

#include <chrono>

namespace kp::mqtt {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

} // namespace kp::mqtt
