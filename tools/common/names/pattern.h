// Patterns over topics, in the two dialects that the tools meet. Both know "+" for one level and
// "#" for the remaining ones. They differ in three rules:
//  - in a pattern of tags, "#" stands for at least one level (`a/#` does not cover `a`), empty
//    levels vanish, and only the first character of a level is looked at. These rules are the
//    library's.
//  - in a filter of MQTT, "#" covers the parent too (`a/#` covers `a`), empty levels count, and a
//    wildcard is a level by itself.
#pragma once

#include "common/names/topic_name.h"

#include <string>
#include <string_view>
#include <vector>

namespace kp::tool {

class Pattern {
  public:
    explicit Pattern(std::string_view text, Dialect dialect = Dialect::tags);

    bool covers(std::string_view topic) const;
    // Says whether a topic below this directory can be covered, so that a walk can leave out what
    // cannot. The directory is a relative path without slashes at its ends.
    bool may_cover_below(std::string_view directory) const;

    // For the next three functions `other` must have the same dialect.

    // Says whether some topic is covered by both.
    bool meets(const Pattern &other) const;
    // Says whether every topic that `other` covers is covered by this one.
    bool contains(const Pattern &other) const;
    // Says whether this one of two patterns that meet tells more: where they differ first, a plain
    // level tells more than "+", and "+" more than "#".
    bool is_more_exact_than(const Pattern &other) const;

  private:
    enum class Kind { rest, any, name }; // the later, the more exact
    struct Level {
        Kind kind;
        std::string name;

        bool covers(std::string_view level) const
        {
            return kind == Kind::any || name == level;
        }
    };

    static Kind kind_of(std::string_view level, Dialect dialect);
    Kind kind_at(std::size_t index) const;
    bool rest_may_be_empty() const
    {
        return dialect_ == Dialect::mqtt;
    }

    Dialect dialect_;
    std::vector<Level> levels_;
};

// Says whether a pattern of tags has a wildcard, or might have.
bool is_pattern(std::string_view text);

// Says whether a level of these tags' pattern stands for several names.
bool has_wildcard(std::string_view text);

// A phrase that says what is wrong with a pattern in a configuration; empty when nothing is.
// Stricter than the library: a wildcard must stand alone in its level, and "#" must be the last
// level.
std::string pattern_problem(std::string_view text, Dialect dialect);

} // namespace kp::tool
