// Matching topics against patterns, level by level.
#pragma once

namespace kp {

// Returns 1 if the topic matches the pattern, else 0. Empty levels do not count. Only the first
// character of a pattern's level decides whether the level is a wildcard.
int topic_match(const char *pattern, const char *topic);

// Says whether the text has a wildcard anywhere: then it is a pattern and not a plain topic.
bool is_pattern(const char *text);

} // namespace kp
