// Text that is safe to show: names and values come from other processes, and a control sequence in
// one of them must not reach the terminal. Also the two encodings of bytes as text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kp::tool {

// One code point of UTF-8 text, or one byte that is not UTF-8.
struct CodePoint {
    char32_t value;
    std::size_t bytes;
    bool valid;
};

CodePoint next_code_point(std::string_view text);

bool is_utf8(std::string_view text);

// Control characters, what turns the direction of text, bytes that are not UTF-8, and the backslash
// itself as backslash escapes; all else as it is.
std::string escaped(std::string_view text);

// A word for a shell that stands for just these bytes, safe to show and to paste: in quotes, and in
// those of bash where something in it must not reach the terminal.
std::string shell_word(std::string_view text);

// Columns that escaped text takes on a terminal.
std::size_t display_width(std::string_view text);

// Cut to `columns` and ended with an ellipsis where something is missing.
std::string shortened(std::string_view text, std::size_t columns);

// Filled with spaces to `columns`.
std::string padded(std::string_view text, std::size_t columns);
std::string padded_left(std::string_view text, std::size_t columns);

std::string to_hex(std::string_view bytes);
// Spaces and colons between the bytes and a leading "0x" are allowed.
std::optional<std::string> from_hex(std::string_view text);

std::string to_base64(std::string_view bytes);
std::optional<std::string> from_base64(std::string_view text);

// Says whether the terminal's character set is UTF-8.
bool locale_is_utf8();

} // namespace kp::tool
