#include "common/names/pattern.h"

#include <algorithm>

namespace kp::tool {

Pattern::Kind Pattern::kind_of(std::string_view level, Dialect dialect)
{
    const std::string_view decisive = dialect == Dialect::tags ? level.substr(0, 1) : level;
    return decisive == "#" ? Kind::rest : decisive == "+" ? Kind::any : Kind::name;
}

Pattern::Pattern(std::string_view text, Dialect dialect) : dialect_(dialect)
{
    for (const std::string_view level : split_levels(text, dialect))
        levels_.push_back({kind_of(level, dialect), std::string(level)});
}

bool Pattern::covers(std::string_view topic) const
{
    const Levels levels = split_levels(topic, dialect_);
    for (std::size_t at = 0; at < levels_.size(); ++at) {
        if (levels_[at].kind == Kind::rest)
            return at < levels.size() || rest_may_be_empty();
        if (at == levels.size() || !levels_[at].covers(levels[at]))
            return false;
    }
    return levels_.size() == levels.size();
}

bool Pattern::may_cover_below(std::string_view directory) const
{
    const Levels levels = split_levels(directory);
    for (std::size_t at = 0; at < levels.size(); ++at) {
        if (at == levels_.size())
            return false;
        if (levels_[at].kind == Kind::rest)
            return true;
        if (!levels_[at].covers(levels[at]))
            return false;
    }
    return levels_.size() > levels.size();
}

bool Pattern::meets(const Pattern &other) const
{
    for (std::size_t at = 0;; ++at) {
        const bool ends = at == levels_.size();
        const bool other_ends = at == other.levels_.size();
        if (ends && other_ends)
            return true;
        if (!ends && levels_[at].kind == Kind::rest)
            return rest_may_be_empty() || !other_ends;
        if (!other_ends && other.levels_[at].kind == Kind::rest)
            return rest_may_be_empty() || !ends;
        if (ends || other_ends)
            return false;
        if (other.levels_[at].kind != Kind::any && !levels_[at].covers(other.levels_[at].name))
            return false;
    }
}

bool Pattern::contains(const Pattern &other) const
{
    for (std::size_t at = 0; at < levels_.size(); ++at) {
        const bool other_ends = at == other.levels_.size();
        if (levels_[at].kind == Kind::rest)
            return rest_may_be_empty() || !other_ends;
        if (other_ends || other.levels_[at].kind == Kind::rest)
            return false;
        const bool is_wider = levels_[at].kind == Kind::name && other.levels_[at].kind == Kind::any;
        if (is_wider || !levels_[at].covers(other.levels_[at].name))
            return false;
    }
    return levels_.size() == other.levels_.size();
}

// Behind its end a pattern tells as much as a plain level does.
Pattern::Kind Pattern::kind_at(std::size_t index) const
{
    return index < levels_.size() ? levels_[index].kind : Kind::name;
}

bool Pattern::is_more_exact_than(const Pattern &other) const
{
    for (std::size_t at = 0; at < std::max(levels_.size(), other.levels_.size()); ++at)
        if (kind_at(at) != other.kind_at(at))
            return kind_at(at) > other.kind_at(at);
    return false;
}

bool is_pattern(std::string_view text)
{
    return text.find_first_of("+#") != std::string_view::npos;
}

bool has_wildcard(std::string_view text)
{
    return std::ranges::any_of(split_levels(text), [](std::string_view level) {
        return level.front() == '+' || level.front() == '#';
    });
}

std::string pattern_problem(std::string_view text, Dialect dialect)
{
    const Levels levels = split_levels(text, dialect);
    if (dialect == Dialect::mqtt && text.empty())
        return "it is empty";
    if (levels.empty())
        return "it names no topic";
    for (std::size_t at = 0; at < levels.size(); ++at) {
        if (levels[at].size() > 1 && is_pattern(levels[at]))
            return "\"" + std::string(levels[at]) + "\" mixes a wildcard with other characters";
        if (levels[at] == "#" && at + 1 != levels.size())
            return "\"#\" must be the last level";
    }
    return {};
}

} // namespace kp::tool
