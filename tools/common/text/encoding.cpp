#include "common/text/encoding.h"

#include <cstdint>

namespace kp::tool {

namespace {

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

// The byte of the two digits at the start of a text.
std::optional<char> byte_of_digits(std::string_view text)
{
    const int high = text.size() > 1 ? hex_digit(text[0]) : -1;
    const int low = text.size() > 1 ? hex_digit(text[1]) : -1;
    if (high < 0 || low < 0)
        return std::nullopt;
    return static_cast<char>(high * 16 + low);
}

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

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
        const auto byte = byte_of_digits(text);
        if (!byte)
            return std::nullopt;
        out += *byte;
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

std::optional<char> escaped_byte(std::string_view text)
{
    return text.starts_with('%') ? byte_of_digits(text.substr(1)) : std::nullopt;
}

} // namespace kp::tool
