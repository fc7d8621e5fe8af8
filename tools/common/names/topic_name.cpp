#include "common/names/topic_name.h"

#include "common/text/text.h"

namespace kp::tool {

Levels split_levels(std::string_view text, Dialect dialect)
{
    Levels levels;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find('/', start);
        levels.push_back(text.substr(start, end - start));
        if (end == std::string_view::npos)
            break;
        start = end + 1;
    }
    if (dialect == Dialect::tags)
        std::erase(levels, std::string_view{});
    return levels;
}

std::string join_levels(std::string_view first, std::string_view second)
{
    std::string joined(first);
    if (!first.empty() && !second.empty())
        joined += '/';
    return joined += second;
}

std::string level_problem(std::string_view level)
{
    if (level.empty())
        return "it has an empty level";
    if (level == "." || level == "..")
        return "a level is \"" + std::string(level) + "\"";
    if (level.size() > kMostLevelBytes)
        return "a level is longer than 255 bytes";
    if (level.find('\0') != level.npos)
        return "a level holds a zero byte";
    return {};
}

std::optional<std::string> normal_topic(std::string_view text, Problem &problem)
{
    std::string topic;
    topic.reserve(text.size());
    for (const std::string_view level : split_levels(text)) {
        if (const std::string why = level_problem(level); !why.empty()) {
            problem = {kUsage, "\"" + escaped(text) + "\" is not a topic: " + why};
            return std::nullopt;
        }
        topic += topic.empty() ? "" : "/";
        topic += level;
    }
    if (topic.empty() || topic.size() > kMostTopicBytes) {
        problem = {kUsage, topic.empty() ? "a topic needs at least one level"
                                         : "a topic is longer than 4000 bytes"};
        return std::nullopt;
    }
    return topic;
}

} // namespace kp::tool
