// Who has a topic open, as JSON.
#pragma once

#include "common/system/processes.h"

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <span>

namespace kp::tool {

// The key `mappers` with an object for each process that maps the file, of the keys pid program
// user open read_only, and `hidden_processes`, how many could not be looked into. `process` tells
// of a process by its number.
void add_mappers(nlohmann::ordered_json &object, std::span<const Mapper> mappers,
                 std::size_t hidden, const std::function<Process(pid_t)> &process = process_of);

} // namespace kp::tool
