// Values as text and back. Numbers are written in the shortest form that reads back to the same
// bits. Bytes are those of the store: the machine's own, little-endian.
#pragma once

#include "common/problem.h"
#include "common/result.h"
#include "layout/value_type.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kp::tool {

// How the bytes of a bytearray or a raw value are written.
enum class ByteStyle { plain, hex, base64 };

bool is_text_type(uint32_t type);     // string
bool is_binary_type(uint32_t type);   // bytearray and raw
bool is_number_type(uint32_t type);   // every other type but boolean
bool is_floating_type(uint32_t type); // float and double

// A number, "true" or "false", or the bytes themselves for the types of variable size. Bytes of a
// wrong size for the type give an empty text.
std::string plain_text(uint32_t type, std::string_view bytes);

// The same for people: a string is escaped, and binary bytes are written in the style.
std::string value_text(uint32_t type, std::string_view bytes, ByteStyle style = ByteStyle::hex);

// The bytes of a value given as text, which must be used up whole and fit the type. Whole numbers
// may be hexadecimal with a leading "0x". A boolean is true, on, yes, 1 or false, off, no, 0, in
// upper or lower case. Says nothing about the size of a variable type; checked_bytes() does.
Result<std::string> text_bytes(uint32_t type, std::string_view text, ByteStyle style);

// The bytes, when they are not empty and of a size that the type takes: at most `max_size` for the
// types of variable size.
Result<std::string> checked_bytes(uint32_t type, uint32_t max_size, std::string_view bytes);

// Does the work of both for what a user has typed. The problem is a whole sentence.
std::optional<std::string> parse_value(uint32_t type, std::string_view text, ByteStyle style,
                                       Problem &problem);

// What a text must be to stand for a value of the type: "true or false", "int8 in its range".
std::string expected_text(uint32_t type, ByteStyle style);

// A number or boolean as a double.
double as_double(uint32_t type, std::string_view bytes);

// Gives -1, 0 or 1 when `a` is less than, equal to or greater than `b`; nothing when they cannot be
// compared (NaN). The bytes must have the type's size.
std::optional<int> compare_values(uint32_t type, std::string_view a, std::string_view b);

} // namespace kp::tool
