// Makes topics into lines of JSON, with the keys that kp prints and what the dictionary knows.
#pragma once

#include "common/dictionary/dictionary.h"
#include "common/values/row_json.h"

namespace kp::web {

// Gives an object with the keys of tool::row_json() and, where the dictionary knows the topic, with
// `unit`, `name` (of the value) and `state` (see tool::state_name()).
std::string row_line(const tool::Row &row, const tool::Dictionary &dictionary);

// Give `topic` alone, as an object and as a line, with `topic_b64` when it is not UTF-8.
nlohmann::ordered_json topic_json(const std::string &topic);
std::string topic_line(const std::string &topic);

// Gives `topic` and what the dictionary knows of it, of these keys: `unit`, `description`, `least`
// and `most`, `lowlow`, `low`, `high` and `highhigh`, `stale` (seconds), `names`.
std::string facts_line(const std::string &topic, const tool::Dictionary &dictionary);

} // namespace kp::web
