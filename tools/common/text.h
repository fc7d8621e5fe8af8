// Text that is safe to show. Names and values come from other processes, and a control sequence in one
// of them must not reach a terminal or a log.
#pragma once

#include <string>
#include <string_view>

namespace kp::tool {

// One code point of UTF-8 text, or one byte that is not UTF-8.
struct CodePoint {
    char32_t value;
    std::size_t bytes;
    bool valid;
};

// The code point at the start of a text that is not empty.
CodePoint next_code_point(std::string_view text);

bool is_utf8(std::string_view text);

// Says whether a code point would do something to a terminal or to the text around it: the control
// characters, and the marks that separate lines or change the direction of text.
bool is_unsafe_to_show(char32_t value);

// Writes as backslash escapes what is unsafe to show, bytes that are not UTF-8, and the backslash
// itself. All else stays as it is.
std::string escaped(std::string_view text);

// From now on `escaped` escapes all that is not ASCII, for a terminal that takes each byte by itself: in
// UTF-8 some bytes are control characters to it. Called before there are threads.
void escape_for_8_bits(bool wanted);

// A word for a shell that stands for just these bytes, safe to show and to paste. It is in quotes, and
// in those of bash where something in it must not reach the terminal.
std::string shell_word(std::string_view text);

// Columns that escaped text takes on a terminal.
std::size_t display_width(std::string_view text);

// Cuts to `columns`, with an ellipsis at the end where something is missing.
std::string shortened(std::string_view text, std::size_t columns);

// Fills with spaces to `columns`: behind the text, or in front of it.
std::string padded(std::string_view text, std::size_t columns);
std::string padded_left(std::string_view text, std::size_t columns);

// Says whether the terminal's character set is UTF-8; main() must have called setlocale().
bool locale_is_utf8();

} // namespace kp::tool
