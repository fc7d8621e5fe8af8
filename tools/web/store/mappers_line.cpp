#include "store/mappers_line.h"

#include "common/device/mapper_json.h"
#include "store/row_line.h"

#include <nlohmann/json.hpp>

namespace kp::web {

std::string mappers_line(const std::string &topic, ino_t inode, const Survey &survey)
{
    const tool::Mappers &all = survey.mappers;
    const auto process = [&survey](pid_t pid) { return survey.processes.at(pid); };
    nlohmann::ordered_json object = topic_json(topic);
    tool::add_mappers(object, all.of({survey.device, inode}), all.unreadable.size(), process);
    return tool::json_line(object);
}

} // namespace kp::web
