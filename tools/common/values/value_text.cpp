#include "common/values/value_text.h"

#include "common/text/encoding.h"
#include "common/text/text.h"
#include "common/values/number_type.h"

#include <array>
#include <charconv>
#include <cmath>
#include <strings.h>
#include <type_traits>

namespace kp::tool {

namespace {

using Bytes = Result<std::string>;

template <typename T> std::string number_text(T value)
{
    if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(value))
            return std::signbit(value) ? "-nan" : "nan";
        if (std::isinf(value))
            return value < 0 ? "-inf" : "inf";
    }
    std::array<char, 64> out{};
    const auto end = std::to_chars(out.data(), out.data() + out.size(), value);
    return std::string(out.data(), end.ptr);
}

template <typename T>
std::from_chars_result read_number(std::string_view text, bool is_hexadecimal, T &value)
{
    const char *end = text.data() + text.size();
    if constexpr (std::is_integral_v<T>)
        return std::from_chars(text.data(), end, value, is_hexadecimal ? 16 : 10);
    else
        return std::from_chars(text.data(), end, value);
}

template <typename T> Bytes number_bytes(std::string_view text)
{
    const bool has_plus = text.starts_with('+');
    text.remove_prefix(has_plus);
    const bool is_hexadecimal =
        std::is_integral_v<T> && (text.starts_with("0x") || text.starts_with("0X"));
    text.remove_prefix(is_hexadecimal ? 2 : 0);
    const bool has_second_sign = (has_plus || is_hexadecimal) && text.starts_with('-');
    T value{};
    const auto [end, error] = read_number(text, is_hexadecimal, value);
    if (error == std::errc::result_out_of_range)
        return Bytes::failed("it is out of the type's range");
    if (error != std::errc() || end != text.data() + text.size() || has_second_sign)
        return Bytes::failed("it is no value of the type");
    return Bytes::of(to_bytes(value));
}

Bytes boolean_bytes(const std::string &text)
{
    const auto is = [&text](const char *word) { return strcasecmp(text.c_str(), word) == 0; };
    if (is("true") || is("1") || is("on") || is("yes"))
        return Bytes::of(to_bytes<uint8_t>(1));
    if (is("false") || is("0") || is("off") || is("no"))
        return Bytes::of(to_bytes<uint8_t>(0));
    return Bytes::failed("it is no boolean");
}

Bytes decoded(std::optional<std::string> bytes, const char *why)
{
    return bytes ? Bytes::of(std::move(*bytes)) : Bytes::failed(why);
}

Bytes binary_bytes(std::string_view text, ByteStyle style)
{
    if (style == ByteStyle::hex)
        return decoded(from_hex(text), "it is no pairs of hexadecimal digits");
    if (style == ByteStyle::base64)
        return decoded(from_base64(text), "it is no base64");
    return Bytes::of(std::string(text));
}

} // namespace

bool is_text_type(uint32_t type)
{
    return type == KP_TYPE_STRING;
}

bool is_binary_type(uint32_t type)
{
    return has_variable_size(type) && !is_text_type(type);
}

bool is_number_type(uint32_t type)
{
    return type < kValueTypeCount && type != KP_TYPE_BOOLEAN && !has_variable_size(type);
}

bool is_floating_type(uint32_t type)
{
    return type == KP_TYPE_FLOAT || type == KP_TYPE_DOUBLE;
}

std::string plain_text(uint32_t type, std::string_view bytes)
{
    if (has_variable_size(type))
        return std::string(bytes);
    if (bytes.size() != kp_get_value_size(type, 0))
        return {};
    if (type == KP_TYPE_BOOLEAN)
        return bytes[0] ? "true" : "false";
    return with_number(
        type, [bytes](auto zero) { return number_text(from_bytes<decltype(zero)>(bytes)); });
}

std::string value_text(uint32_t type, std::string_view bytes, ByteStyle style)
{
    if (is_text_type(type))
        return escaped(bytes);
    if (is_binary_type(type) && style == ByteStyle::hex)
        return to_hex(bytes);
    if (is_binary_type(type) && style == ByteStyle::base64)
        return to_base64(bytes);
    return plain_text(type, bytes);
}

Result<std::string> text_bytes(uint32_t type, std::string_view text, ByteStyle style)
{
    if (is_text_type(type))
        return Bytes::of(std::string(text));
    if (is_binary_type(type))
        return binary_bytes(text, style);
    if (type == KP_TYPE_BOOLEAN)
        return boolean_bytes(std::string(text));
    return with_number(type, [text](auto zero) { return number_bytes<decltype(zero)>(text); });
}

Result<std::string> checked_bytes(uint32_t type, uint32_t max_size, std::string_view bytes)
{
    if (bytes.empty())
        return Bytes::failed("it is empty");
    if (has_variable_size(type) && bytes.size() > max_size)
        return Bytes::failed("it has " + std::to_string(bytes.size()) + " bytes of at most " +
                             std::to_string(max_size));
    if (!has_variable_size(type) && bytes.size() != kp_get_value_size(type, 0))
        return Bytes::failed("it has " + std::to_string(bytes.size()) +
                             " bytes, the type another number");
    return Bytes::of(std::string(bytes));
}

std::optional<std::string> parse_value(uint32_t type, std::string_view text, ByteStyle style,
                                       Problem &problem)
{
    auto bytes = text_bytes(type, text, style);
    if (!bytes)
        problem = {kUsage,
                   "\"" + shortened(escaped(text), 60) + "\" is not " + expected_text(type, style)};
    else if (bytes.value->empty())
        problem = {kUsage, "an empty value cannot be stored"};
    else if (bytes.value->size() > KP_MAX_VALUE_SIZE)
        problem = {kUsage, "a value of " + std::to_string(bytes.value->size()) +
                               " bytes is longer than the largest, " +
                               std::to_string(KP_MAX_VALUE_SIZE)};
    else
        return std::move(bytes.value);
    return std::nullopt;
}

std::string expected_text(uint32_t type, ByteStyle style)
{
    if (is_binary_type(type))
        return style == ByteStyle::hex ? "pairs of hexadecimal digits" : "base64";
    if (type == KP_TYPE_BOOLEAN)
        return "true or false";
    return std::string(kp_type2str(type)) + " in its range";
}

double as_double(uint32_t type, std::string_view bytes)
{
    return with_number(type, [bytes](auto zero) {
        return static_cast<double>(from_bytes<decltype(zero)>(bytes));
    });
}

std::optional<int> compare_values(uint32_t type, std::string_view a, std::string_view b)
{
    if (has_variable_size(type)) {
        const int order = a.compare(b);
        return order < 0 ? -1 : order > 0;
    }
    if (type == KP_TYPE_BOOLEAN)
        return static_cast<int>(a[0] != 0) - static_cast<int>(b[0] != 0);
    return with_number(type, [a, b](auto zero) -> std::optional<int> {
        const auto left = from_bytes<decltype(zero)>(a);
        const auto right = from_bytes<decltype(zero)>(b);
        if (left == right)
            return 0;
        if (left < right)
            return -1;
        return left > right ? std::optional(1) : std::nullopt;
    });
}

} // namespace kp::tool
