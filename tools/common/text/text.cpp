#include "common/text/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <langinfo.h>
#include <wchar.h>

namespace kp::tool {

namespace {

constexpr CodePoint kStrayByte{0xFFFD, 1, false};

struct CodePointRange {
    char32_t first, last;
};

// Not U+200C and U+200D: nobody sees them either, but some scripts and pictures need them.
constexpr std::array kUnsafe = {
    CodePointRange{0x0000, 0x001F},   // control characters
    CodePointRange{0x007F, 0x009F},   // control characters
    CodePointRange{0x00AD, 0x00AD},   // soft hyphen
    CodePointRange{0x061C, 0x061C},   // direction
    CodePointRange{0x180E, 0x180E},   // vowel separator
    CodePointRange{0x200B, 0x200B},   // space without width
    CodePointRange{0x200E, 0x200F},   // direction
    CodePointRange{0x2028, 0x202E},   // lines, direction
    CodePointRange{0x2060, 0x206F},   // joiners, invisible operators, direction
    CodePointRange{0xFEFF, 0xFEFF},   // byte order mark
    CodePointRange{0xFFF9, 0xFFFB},   // annotations
    CodePointRange{0xE0000, 0xE007F}, // tags
};

bool continues(std::string_view text, std::size_t index)
{
    return index < text.size() && (static_cast<uint8_t>(text[index]) & 0xC0) == 0x80;
}

std::string escape_of(std::string_view text, CodePoint point)
{
    switch (point.valid ? point.value : 0) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    case '\\':
        return "\\\\";
    default:
        break;
    }
    std::array<char, 16> out{};
    if (point.valid && point.bytes > 1)
        (void)std::snprintf(out.data(), out.size(), point.value > 0xFFFF ? "\\U%08x" : "\\u%04x",
                            static_cast<unsigned>(point.value));
    else
        (void)std::snprintf(out.data(), out.size(), "\\x%02x", static_cast<uint8_t>(text[0]));
    return out.data();
}

bool is_8_bit = false;

} // namespace

CodePoint next_code_point(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80)
        return {first, 1, true};
    const std::size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4)
        return kStrayByte;
    char32_t value = first & (0xFFU >> (bytes + 1));
    for (std::size_t index = 1; index < bytes; ++index) {
        if (!continues(text, index))
            return kStrayByte;
        value = (value << 6) | (static_cast<uint8_t>(text[index]) & 0x3F);
    }
    const bool overlong = (bytes == 3 && value < 0x800) || (bytes == 4 && value < 0x10000);
    if (overlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return kStrayByte;
    return {value, bytes, true};
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        if (!point.valid)
            return false;
        text.remove_prefix(point.bytes);
    }
    return true;
}

bool is_unsafe_to_show(char32_t value)
{
    const bool is_ascii_text = value >= 0x20 && value < 0x7F;
    return !is_ascii_text && std::ranges::any_of(kUnsafe, [value](const CodePointRange &range) {
        return value >= range.first && value <= range.last;
    });
}

void escape_for_8_bits(bool wanted)
{
    is_8_bit = wanted;
}

std::string escaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        if (!point.valid || point.value == '\\' || is_unsafe_to_show(point.value) ||
            (is_8_bit && point.bytes > 1))
            out += escape_of(text, point);
        else
            out.append(text.substr(0, point.bytes));
        text.remove_prefix(point.bytes);
    }
    return out;
}

std::string shell_word(std::string_view text)
{
    const std::string shown = escaped(text);
    const bool is_plain = shown == text;
    std::string out = is_plain ? "'" : "$'";
    for (const char byte : shown)
        out += byte != '\'' ? std::string(1, byte) : is_plain ? "'\\''" : "\\'";
    return out + "'";
}

std::size_t display_width(std::string_view text)
{
    std::size_t width = 0;
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        const int columns = wcwidth(static_cast<wchar_t>(point.value));
        width += columns >= 0 ? static_cast<std::size_t>(columns) : 1;
        text.remove_prefix(point.bytes);
    }
    return width;
}

std::string shortened(std::string_view text, std::size_t columns)
{
    if (display_width(text) <= columns)
        return std::string(text);
    const std::string_view mark = locale_is_utf8() ? "…" : "~";
    std::string out;
    std::size_t width = 1;
    while (!text.empty()) {
        const std::size_t bytes = next_code_point(text).bytes;
        width += display_width(text.substr(0, bytes));
        if (width > columns)
            break;
        out.append(text.substr(0, bytes));
        text.remove_prefix(bytes);
    }
    return out.append(mark);
}

std::string padded(std::string_view text, std::size_t columns)
{
    const std::size_t width = display_width(text);
    return std::string(text) + std::string(width < columns ? columns - width : 0, ' ');
}

std::string padded_left(std::string_view text, std::size_t columns)
{
    const std::size_t width = display_width(text);
    return std::string(width < columns ? columns - width : 0, ' ') + std::string(text);
}

bool locale_is_utf8()
{
    static const bool utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return utf8;
}

} // namespace kp::tool
