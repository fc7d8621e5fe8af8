// One topic as one JSON object: the keys that every program of the tools gives.
#pragma once

#include "common/store/segment_reader.h"
#include "common/values/value_json.h"

#include <array>
#include <string_view>

namespace kp::tool {

struct Row {
    std::string topic;
    Snapshot snapshot;
};

// The keys that every object has, in their order, which are the columns of a table too. They and
// their order never change.
inline constexpr std::array<std::string_view, 13> kRowKeys = {
    "topic", "type", "value", "quality", "ts",        "time",     "source_ts",
    "size",  "max",  "extra", "flags",   "providers", "consumers"};

// An object with the keys above. Behind them stand, where they apply, `value_b64`, `topic_b64` and
// `problem`, which says why a value cannot be read.
nlohmann::ordered_json row_json(const Row &row, ByteStyle style);

// JSON as one line of ASCII, so that no control character of a name reaches a terminal; bytes that
// are not UTF-8 come out as U+FFFD.
std::string json_line(const nlohmann::ordered_json &object);

} // namespace kp::tool
