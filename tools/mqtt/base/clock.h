// The clock that everything in the bridge is timed by; nobody can set it.
#pragma once

#include <chrono>

namespace kp::mqtt {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

} // namespace kp::mqtt
