// Patterns over topics, in the two dialects that meet in the bridge. Both split a name at "/" and
// know "+" for one level and "#" for the rest, but:
//  - in a tag pattern "#" needs at least one level (a/# does not cover a), and empty levels vanish;
//  - in an MQTT filter "#" covers the parent too (a/# covers a), and empty levels count.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kp::mqtt {

using Levels = std::vector<std::string_view>;

// The levels of an MQTT topic or filter, empty ones included.
Levels split_levels(std::string_view topic);

// The levels of a tag's topic or pattern; empty ones vanish.
Levels split_tag_levels(std::string_view tag);

// What is wrong with a pattern or filter in a configuration, or an empty text. Wildcards must stand
// alone in their level and "#" last, also in tag patterns, where the library would read +x as "+".
std::string pattern_problem(std::string_view pattern);
std::string filter_problem(std::string_view filter);

bool pattern_covers(std::string_view pattern, std::string_view tag);
bool filter_covers(std::string_view filter, std::string_view topic);

// Whether some name is covered by both.
bool patterns_meet(std::string_view a, std::string_view b);
bool filters_meet(std::string_view a, std::string_view b);

// Whether the first of two filters that meet says more: where they differ first, a plain level says
// more than "+", and that more than "#".
bool is_more_exact(std::string_view a, std::string_view b);

// Whether every tag that `inner` covers is covered by `outer`.
bool pattern_contains(std::string_view outer, std::string_view inner);

} // namespace kp::mqtt
