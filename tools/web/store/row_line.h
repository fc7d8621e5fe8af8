// Topics as lines of JSON: the keys of kp's own, and what the dictionary knows.
#pragma once

#include "common/dictionary/dictionary.h"
#include "common/row_json.h"

namespace kp::web {

// The keys of tool::row_json(); then, where the dictionary knows the topic, unit, name (of the
// value) and state (of tool::state_name()).
std::string row_line(const tool::Row &row, const tool::Dictionary &dictionary);

// topic alone, as an object and as a line, with topic_b64 where it is not UTF-8.
nlohmann::ordered_json topic_json(const std::string &topic);
std::string topic_line(const std::string &topic);

// topic, and what the dictionary knows of it, each where it does: unit, description, least and
// most, lowlow, low, high and highhigh, stale (seconds), names.
std::string facts_line(const std::string &topic, const tool::Dictionary &dictionary);

} // namespace kp::web
