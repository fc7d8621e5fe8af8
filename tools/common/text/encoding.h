// Bytes as text: hexadecimal, base64, and the escapes of addresses.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kp::tool {

// Gives two lower-case digits for each byte.
std::string to_hex(std::string_view bytes);
// Gives nothing if the text is not made of pairs of digits. Spaces and colons between the bytes and
// a leading "0x" are allowed.
std::optional<std::string> from_hex(std::string_view text);

// Gives one line with padding.
std::string to_base64(std::string_view bytes);
// Gives nothing if the text is not base64 with padding.
std::optional<std::string> from_base64(std::string_view text);

// Gives the byte of an escape, "%" and two digits, at the start of a text; nothing without one.
std::optional<char> escaped_byte(std::string_view text);

} // namespace kp::tool
