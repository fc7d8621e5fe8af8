#include "topic_filter.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

enum class Rest { may_be_empty, needs_a_level }; // what "#" stands for

bool covers(const Levels &pattern, const Levels &topic, Rest rest)
{
    size_t at = 0;
    for (; at < pattern.size(); ++at) {
        if (pattern[at] == "#")
            return topic.size() > at || rest == Rest::may_be_empty;
        if (at == topic.size() || (pattern[at] != "+" && pattern[at] != topic[at]))
            return false;
    }
    return at == topic.size();
}

bool meet(const Levels &a, const Levels &b, Rest rest)
{
    const bool any = rest == Rest::may_be_empty;
    for (size_t at = 0;; ++at) {
        const bool a_ends = at == a.size();
        const bool b_ends = at == b.size();
        if (a_ends && b_ends)
            return true;
        if (!a_ends && a[at] == "#")
            return any || !b_ends;
        if (!b_ends && b[at] == "#")
            return any || !a_ends;
        if (a_ends || b_ends)
            return false;
        if (a[at] != "+" && b[at] != "+" && a[at] != b[at])
            return false;
    }
}

int exactness(const Levels &filter, size_t at)
{
    if (at >= filter.size())
        return 2; // an end is as plain as a name
    return filter[at] == "#" ? 0 : filter[at] == "+" ? 1 : 2;
}

std::string wildcard_problem(const Levels &levels)
{
    for (size_t at = 0; at < levels.size(); ++at) {
        const std::string_view level = levels[at];
        if (level.size() > 1 && level.find_first_of("+#") != level.npos)
            return "\"" + std::string(level) + "\" mixes a wildcard with other characters";
        if (level == "#" && at + 1 != levels.size())
            return "\"#\" must be the last level";
    }
    return {};
}

} // namespace

Levels split_levels(std::string_view topic)
{
    Levels levels;
    for (size_t start = 0;;) {
        const size_t end = topic.find('/', start);
        levels.push_back(topic.substr(start, end - start));
        if (end == topic.npos)
            return levels;
        start = end + 1;
    }
}

Levels split_tag_levels(std::string_view tag)
{
    Levels levels = split_levels(tag);
    std::erase(levels, std::string_view{});
    return levels;
}

std::string pattern_problem(std::string_view pattern)
{
    const Levels levels = split_tag_levels(pattern);
    return levels.empty() ? "it names no topic" : wildcard_problem(levels);
}

std::string filter_problem(std::string_view filter)
{
    return filter.empty() ? "it is empty" : wildcard_problem(split_levels(filter));
}

bool pattern_covers(std::string_view pattern, std::string_view tag)
{
    return covers(split_tag_levels(pattern), split_tag_levels(tag), Rest::needs_a_level);
}

bool filter_covers(std::string_view filter, std::string_view topic)
{
    return covers(split_levels(filter), split_levels(topic), Rest::may_be_empty);
}

bool patterns_meet(std::string_view a, std::string_view b)
{
    return meet(split_tag_levels(a), split_tag_levels(b), Rest::needs_a_level);
}

bool filters_meet(std::string_view a, std::string_view b)
{
    return meet(split_levels(a), split_levels(b), Rest::may_be_empty);
}

bool is_more_exact(std::string_view a, std::string_view b)
{
    const Levels one = split_levels(a);
    const Levels other = split_levels(b);
    for (size_t at = 0; at < std::max(one.size(), other.size()); ++at)
        if (exactness(one, at) != exactness(other, at))
            return exactness(one, at) > exactness(other, at);
    return false;
}

bool pattern_contains(std::string_view outer, std::string_view inner)
{
    const Levels wide = split_tag_levels(outer);
    const Levels narrow = split_tag_levels(inner);
    for (size_t at = 0;; ++at) {
        if (at == wide.size() || at == narrow.size())
            return wide.size() == narrow.size();
        if (wide[at] == "#")
            return true;
        if (narrow[at] == "#" || (wide[at] != "+" && wide[at] != narrow[at]))
            return false;
    }
}

} // namespace kp::mqtt
