// Text that is safe to show. Names and values come from other processes, and a control sequence in
// one of them must not reach a terminal or a log.
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

// Says whether a code point would do something to a terminal or to the text around it, or make two
// names look the same: the control characters, the marks that separate lines or change the
// direction of text, and what nobody sees.
bool is_unsafe_to_show(char32_t value);

// Writes as backslash escapes what is unsafe to show, bytes that are not UTF-8, and the backslash
// itself. All else stays as it is.
std::string escaped(std::string_view text);

// From now on escaped() escapes everything that is not ASCII. This is for a terminal that takes
// each byte by itself: some bytes of UTF-8 are control characters to it. To be called before there
// are threads.
void escape_for_8_bits(bool wanted);

// A word that a shell reads as just these bytes, and that is safe to show and to paste. It is in
// plain quotes, or in those of bash ($'...') if it has characters that must not reach the terminal.
std::string shell_word(std::string_view text);

// Columns that escaped text takes on a terminal.
std::size_t display_width(std::string_view text);

// Cuts the text to `columns`. If something was cut off an ellipsis stands at the end.
std::string shortened(std::string_view text, std::size_t columns);

// Fills the text with spaces up to `columns`: behind it, or in front of it.
std::string padded(std::string_view text, std::size_t columns);
std::string padded_left(std::string_view text, std::size_t columns);

// Says whether the terminal's character set is UTF-8; main() must have called setlocale().
bool locale_is_utf8();

} // namespace kp::tool
