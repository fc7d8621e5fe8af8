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

std::optional<std::string> normal_topic(std::string_view text, Problem &problem)
{
    if (text.find('\0') != std::string_view::npos) {
        problem = {kUsage, "\"" + escaped(text) + "\" is not a topic: a zero byte is in it"};
        return std::nullopt;
    }
    std::string topic;
    topic.reserve(text.size());
    for (const std::string_view level : split_levels(text)) {
        if (level == "." || level == ".." || level.size() > kMostLevelBytes) {
            problem = {kUsage,
                       "\"" + escaped(text) + "\" is not a topic: a level is " +
                           (level.size() > kMostLevelBytes ? "longer than 255 bytes"
                                                           : "\"" + std::string(level) + "\"")};
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
