// Measures in a process of its own.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>

namespace bench {

// Runs a measurement in a forked child and hands over the rows that it adds. What a peer's library
// leaves behind in a process thus never reaches the next measurement.
nlohmann::json collect_in_child(const std::function<void(nlohmann::json &rows)> &measure);

} // namespace bench
