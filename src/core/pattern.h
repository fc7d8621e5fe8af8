// Matching topics against patterns, level by level.
#pragma once

namespace kp {

// 1 if the topic matches the pattern, else 0. Empty levels vanish; of a pattern's level only the
// first character decides whether it is a wildcard.
int topic_match(const char *pattern, const char *topic);

// Whether the text has a wildcard anywhere, which makes it a pattern rather than a plain topic.
bool is_pattern(const char *text);

} // namespace kp
