// The names of topics: levels with slashes between them.
#pragma once

#include "common/problem.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kp::tool {

constexpr std::size_t kMostLevelBytes = 255;  // of a file name
constexpr std::size_t kMostTopicBytes = 4000; // of a path, less the store's own directory

// Whose names they are: those of tags, or those of an MQTT broker.
enum class Dialect { tags, mqtt };

using Levels = std::vector<std::string_view>;

// Gives the levels of a topic or a pattern. Empty levels do not count in the names of tags, but do
// in MQTT. The views point into `text`.
Levels split_levels(std::string_view text, Dialect dialect = Dialect::tags);

// Joins two parts, with a slash between them if neither is empty.
std::string join_levels(std::string_view first, std::string_view second);

// Says why a level cannot be the name of a file or of a directory; an empty text when it can.
std::string level_problem(std::string_view level);

// Gives the topic with single slashes between its levels; nothing, with a problem, if it could not
// be a file of the store.
std::optional<std::string> normal_topic(std::string_view text, Problem &problem);

} // namespace kp::tool
