// Topic names and the patterns that select them. The rules are the library's: in a pattern the level
// "+" stands for any one level and "#" for one or more remaining levels, and only the first character
// of a level is looked at.
#pragma once

#include "kp/problem.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kp::tool {

std::vector<std::string_view> split_levels(std::string_view text); // empty levels vanish

// The topic with single slashes between its levels; refuses what could not be a file of the store.
std::optional<std::string> normal_topic(std::string_view text, Problem &problem);

bool is_pattern(std::string_view text);

class Pattern {
  public:
    explicit Pattern(std::string_view text);

    bool matches(std::string_view topic) const;
    // Says whether a topic below this directory (a relative path without slashes at its ends) can
    // match, so that a walk can leave out what cannot.
    bool may_match_below(std::string_view directory) const;

  private:
    std::vector<std::string> levels_;
};

// What a command was asked to look at: topics and patterns, less those that are excluded. Nothing
// given means everything.
class Selection {
  public:
    // False with a problem for a topic that cannot exist.
    bool set(const std::vector<std::string> &wanted, const std::vector<std::string> &excluded,
             Problem &problem);

    bool covers(std::string_view topic) const;
    bool may_cover_below(std::string_view directory) const;
    // The topic when exactly one was given and no pattern.
    const std::optional<std::string> &single_topic() const
    {
        return single_topic_;
    }
    bool has_only_topics() const
    {
        return !wanted_.empty() && topics_.size() == wanted_.size() && excluded_.empty();
    }
    // The plain topics that were given.
    const std::vector<std::string> &topics() const
    {
        return topics_;
    }

  private:
    std::vector<Pattern> wanted_;
    std::vector<Pattern> excluded_;
    std::vector<std::string> topics_;
    std::optional<std::string> single_topic_;
};

} // namespace kp::tool
