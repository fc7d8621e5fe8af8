#include "common/device/mapper_json.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

void add_mappers(nlohmann::ordered_json &object, std::span<const Mapper> mappers,
                 std::size_t hidden, const std::function<Process(pid_t)> &process)
{
    object["mappers"] = nlohmann::ordered_json::array();
    for (const Mapper &mapper : mappers) {
        const Process found = process(mapper.pid);
        object["mappers"].push_back({{"pid", found.pid},
                                     {"program", found.program},
                                     {"user", found.user},
                                     {"open", mapper.writable},
                                     {"read_only", mapper.read_only}});
    }
    object["hidden_processes"] = hidden;
}

} // namespace kp::tool
