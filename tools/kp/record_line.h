// A topic as a JSON line, read back: what `set --batch` and `restore` take.
#pragma once

#include "value.h"
#include "writer.h"

namespace kp::tool {

struct Record {
    Write write;
    nlohmann::json value;             // null without one
    std::optional<std::string> bytes; // exact, from value_b64
    ByteStyle style = ByteStyle::hex;
};

std::optional<Record> parse_record(const std::string &line, ByteStyle style, Problem &problem);

// The same with what else a segment holds: its time, maximum and extra information.
std::optional<Record> parse_stored_record(const std::string &line, Problem &problem);

// The value's bytes for a topic of this type.
std::optional<std::string> record_bytes(const Record &record, uint32_t type, Problem &problem);

// Microseconds since 1970 from a number or from ISO 8601 in UTC.
std::optional<uint64_t> parse_time(const std::string &text);

} // namespace kp::tool
