#include "common/pattern.h"

#include "common/text.h"

#include <algorithm>

namespace kp::tool {

namespace {

constexpr std::size_t kLevelBytes = 255;  // of a file name
constexpr std::size_t kTopicBytes = 4000; // of a path, less the store's own directory

bool is_everything(std::string_view level)
{
    return level.starts_with('#');
}

bool level_matches(std::string_view pattern, std::string_view level)
{
    return pattern.starts_with('+') || pattern == level;
}

} // namespace

std::vector<std::string_view> split_levels(std::string_view text)
{
    std::vector<std::string_view> levels;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('/'), text.size());
        if (end > 0)
            levels.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return levels;
}

std::optional<std::string> normal_topic(std::string_view text, Problem &problem)
{
    std::string topic;
    for (const std::string_view level : split_levels(text)) {
        if (level == "." || level == ".." || level.size() > kLevelBytes) {
            problem = {kUsage, "\"" + escaped(text) + "\" is not a topic: a level is " +
                                   (level.size() > kLevelBytes ? "longer than 255 bytes"
                                                               : "\"" + std::string(level) + "\"")};
            return std::nullopt;
        }
        topic.append(topic.empty() ? "" : "/").append(level);
    }
    if (topic.empty() || topic.size() > kTopicBytes) {
        problem = {kUsage, topic.empty() ? "a topic needs at least one level"
                                         : "a topic is longer than 4000 bytes"};
        return std::nullopt;
    }
    return topic;
}

bool is_pattern(std::string_view text)
{
    return text.find_first_of("+#") != std::string_view::npos;
}

Pattern::Pattern(std::string_view text)
{
    for (const std::string_view level : split_levels(text))
        levels_.emplace_back(level);
}

bool Pattern::matches(std::string_view topic) const
{
    const auto levels = split_levels(topic);
    for (std::size_t index = 0;; ++index) {
        if (index >= levels_.size() || index >= levels.size())
            return levels_.size() == levels.size();
        if (is_everything(levels_[index]))
            return true;
        if (!level_matches(levels_[index], levels[index]))
            return false;
    }
}

bool Pattern::may_match_below(std::string_view directory) const
{
    const auto levels = split_levels(directory);
    for (std::size_t index = 0; index < levels.size(); ++index) {
        if (index + 1 > levels_.size())
            return false;
        if (is_everything(levels_[index]))
            return true;
        if (!level_matches(levels_[index], levels[index]))
            return false;
    }
    return levels_.size() > levels.size();
}

bool Selection::set(const std::vector<std::string> &wanted,
                    const std::vector<std::string> &excluded, Problem &problem)
{
    for (const std::string &text : wanted) {
        wanted_.emplace_back(text);
        if (is_pattern(text))
            continue;
        auto topic = normal_topic(text, problem);
        if (!topic)
            return false;
        topics_.push_back(std::move(*topic));
    }
    for (const std::string &text : excluded)
        excluded_.emplace_back(text);
    if (wanted.size() == 1 && topics_.size() == 1)
        single_topic_ = topics_.front();
    return true;
}

bool Selection::covers(std::string_view topic) const
{
    const auto matches = [topic](const Pattern &pattern) { return pattern.matches(topic); };
    return (wanted_.empty() || std::any_of(wanted_.begin(), wanted_.end(), matches)) &&
           std::none_of(excluded_.begin(), excluded_.end(), matches);
}

bool Selection::may_cover_below(std::string_view directory) const
{
    return wanted_.empty() ||
           std::any_of(wanted_.begin(), wanted_.end(), [directory](const Pattern &pattern) {
               return pattern.may_match_below(directory);
           });
}

} // namespace kp::tool
