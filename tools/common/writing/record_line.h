// A topic as a JSON line: what `dump` and `record` print, and `set --batch`, `restore` and `replay`
// take.
#pragma once

#include "common/values/row_json.h"
#include "common/values/value_json.h"
#include "common/writing/writer.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

struct Record {
    Write write;
    nlohmann::json value;             // null without one
    std::optional<std::string> bytes; // exact, from value_b64
    ByteStyle style = ByteStyle::hex;
    std::optional<uint64_t> seen; // when it was recorded
};

// Makes the line. The value's bytes stand in it in base64, too; `seen` is given for a record of
// changes.
std::string stored_record(const Row &row, std::optional<uint64_t> seen = {});

std::optional<Record> parse_record(const std::string &line, ByteStyle style, Problem &problem);

// Does the same for a text that need not name the topic, but may name no other.
std::optional<Record> parse_record_of(const std::string &topic, const std::string &text,
                                      ByteStyle style, Problem &problem);

// Does the same as parse_record() and also reads what else such a line holds: times, maximum and
// extra information.
std::optional<Record> parse_stored_record(const std::string &line, Problem &problem);

// Gives the value's bytes for a topic of this type.
std::optional<std::string> record_bytes(const Record &record, uint32_t type, Problem &problem);

// Microseconds since 1970 from a number or from ISO 8601 in UTC.
std::optional<uint64_t> parse_time(const std::string &text);

} // namespace kp::tool
