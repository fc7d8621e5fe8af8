// Values as text and back. Numbers are printed in the shortest form that reads back to the same bits.
#pragma once

#include "kp/problem.h"
#include "common/segment_reader.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

// How bytes that are no text are written.
enum class ByteStyle { hex, base64 };

bool is_text_type(uint32_t type);   // string
bool is_binary_type(uint32_t type); // bytearray and raw
bool is_number_type(uint32_t type); // every other but boolean

// The value for people, with control characters escaped. Bytes must fit the type.
std::string value_text(uint32_t type, std::string_view bytes, ByteStyle style = ByteStyle::hex);

// The value as JSON: true, 21.5, "text"; NaN and infinities are strings, bytes are text of the style.
nlohmann::ordered_json value_json(uint32_t type, std::string_view bytes,
                                  ByteStyle style = ByteStyle::hex);

// The bytes that a text stands for in a type; nothing with a problem when it does not fit.
std::optional<std::string> parse_value(uint32_t type, std::string_view text, ByteStyle style,
                                       Problem &problem);

// The same from a JSON value.
std::optional<std::string> parse_json_value(uint32_t type, const nlohmann::json &value,
                                            ByteStyle style, Problem &problem);

// -1, 0 or 1 as `a` stands to `b`; nothing when they cannot be compared (NaN).
std::optional<int> compare_values(uint32_t type, std::string_view a, std::string_view b);

} // namespace kp::tool
