#include "common/text.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <langinfo.h>
#include <wchar.h>

namespace kp::tool {

namespace {

constexpr CodePoint kStrayByte{0xFFFD, 1, false};

bool continues(std::string_view text, std::size_t index)
{
    return index < text.size() && (static_cast<uint8_t>(text[index]) & 0xC0) == 0x80;
}

// Control characters of both sets, and the marks that reorder what a terminal shows.
bool is_unsafe(char32_t value)
{
    return value < 0x20 || (value >= 0x7F && value < 0xA0) || value == 0x061C ||
           (value >= 0x200E && value <= 0x200F) || (value >= 0x2028 && value <= 0x202E) ||
           (value >= 0x2066 && value <= 0x2069);
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
        (void)std::snprintf(out.data(), out.size(), "\\u%04x", static_cast<unsigned>(point.value));
    else
        (void)std::snprintf(out.data(), out.size(), "\\x%02x", static_cast<uint8_t>(text[0]));
    return out.data();
}

int hex_digit(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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

std::string escaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        if (!point.valid || point.value == '\\' || is_unsafe(point.value))
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

std::string to_hex(std::string_view bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        out += digits[static_cast<uint8_t>(byte) >> 4];
        out += digits[static_cast<uint8_t>(byte) & 0xF];
    }
    return out;
}

std::optional<std::string> from_hex(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.remove_prefix(2);
    std::string out;
    while (!text.empty()) {
        if (text[0] == ' ' || text[0] == ':') {
            text.remove_prefix(1);
            continue;
        }
        const int high = hex_digit(text[0]);
        const int low = text.size() > 1 ? hex_digit(text[1]) : -1;
        if (high < 0 || low < 0)
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        text.remove_prefix(2);
    }
    return out;
}

std::string to_base64(std::string_view bytes)
{
    std::string out;
    for (std::size_t start = 0; start < bytes.size(); start += 3) {
        uint32_t group = 0;
        for (std::size_t index = start; index < start + 3; ++index)
            group = group << 8 | (index < bytes.size() ? static_cast<uint8_t>(bytes[index]) : 0U);
        for (unsigned digit = 0; digit < 4; ++digit)
            out += start + digit <= bytes.size() ? kBase64[group >> (18 - 6 * digit) & 0x3F] : '=';
    }
    return out;
}

std::optional<std::string> from_base64(std::string_view text)
{
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    std::string out;
    uint32_t group = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const bool is_padding = index >= text.size() - padding;
        const std::size_t digit = is_padding ? 0 : kBase64.find(text[index]);
        if (digit == std::string_view::npos)
            return std::nullopt;
        group = group << 6 | static_cast<uint32_t>(digit);
        if (index % 4 == 3)
            for (unsigned shift = 24; shift > 0; shift -= 8)
                out += static_cast<char>(group >> (shift - 8) & 0xFF);
    }
    out.resize(out.size() - padding);
    return out;
}

bool locale_is_utf8()
{
    static const bool utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return utf8;
}

} // namespace kp::tool
