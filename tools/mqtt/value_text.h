// Typed values as text and back. The bytes are those of the store: the machine's own, little-endian.
#pragma once

#include "result.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kp::mqtt {

bool is_number(uint32_t type);
bool is_floating(uint32_t type);
bool has_variable_size(uint32_t type);

// The value of a number or boolean as a double, for deadbands.
double as_double(uint32_t type, std::string_view bytes);

// A number in the shortest form that reads back as the same value; "true" or "false"; the bytes
// themselves for the types of variable size. Bytes of a wrong size for the type give an empty text.
std::string value_text(uint32_t type, std::string_view bytes);

// The bytes of a value given as text, which must be used up whole and fit the type. A boolean may
// also be 1, 0, on or off, in any case. Variable sizes take 1 to `max_size` bytes as they are.
Result<std::string> value_bytes(uint32_t type, uint32_t max_size, std::string_view text);

// The bytes of a value given as the store's own bytes.
Result<std::string> checked_bytes(uint32_t type, uint32_t max_size, std::string_view bytes);

std::string base64(std::string_view bytes);
Result<std::string> from_base64(std::string_view text);

} // namespace kp::mqtt
