#include "common/names/selection.h"

#include <algorithm>

namespace kp::tool {

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
    const auto covers = [topic](const Pattern &pattern) { return pattern.covers(topic); };
    return (wanted_.empty() || std::ranges::any_of(wanted_, covers)) &&
           std::ranges::none_of(excluded_, covers);
}

bool Selection::may_cover_below(std::string_view directory) const
{
    if (directory.size() + std::string_view("/x").size() > kMostTopicBytes)
        return false;
    const auto may_cover = [directory](const Pattern &pattern) {
        return pattern.may_cover_below(directory);
    };
    return wanted_.empty() || std::ranges::any_of(wanted_, may_cover);
}

} // namespace kp::tool
