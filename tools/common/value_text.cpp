#include "common/value_text.h"

#include "common/text.h"
#include "layout/value_type.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace kp::tool {

namespace {

template <typename T> T from_bytes(std::string_view bytes)
{
    T value{};
    std::memcpy(&value, bytes.data(), std::min(sizeof(value), bytes.size()));
    return value;
}

template <typename T> std::string to_bytes(T value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

// Calls `use` with a zero of the C++ type that a number type has.
template <typename Use> auto with_number(uint32_t type, const Use &use)
{
    switch (type) {
    case KP_TYPE_INT8:
        return use(int8_t{});
    case KP_TYPE_INT16:
        return use(int16_t{});
    case KP_TYPE_INT32:
        return use(int32_t{});
    case KP_TYPE_INT64:
        return use(int64_t{});
    case KP_TYPE_UINT8:
        return use(uint8_t{});
    case KP_TYPE_UINT16:
        return use(uint16_t{});
    case KP_TYPE_UINT32:
        return use(uint32_t{});
    case KP_TYPE_UINT64:
        return use(uint64_t{});
    case KP_TYPE_FLOAT:
        return use(float{});
    default:
        return use(double{});
    }
}

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

template <typename T> bool parse_number(std::string_view text, T &value)
{
    if (text.starts_with('+'))
        text.remove_prefix(1);
    const char *end = text.data() + text.size();
    std::from_chars_result result{};
    if constexpr (std::is_integral_v<T>) {
        const bool hex = text.starts_with("0x") || text.starts_with("0X");
        result = std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
    } else {
        result = std::from_chars(text.data(), end, value);
    }
    return result.ec == std::errc() && result.ptr == end && !text.empty();
}

std::optional<bool> parse_boolean(std::string_view text)
{
    for (const std::string_view yes : {"true", "1", "on", "yes"})
        if (text == yes)
            return true;
    for (const std::string_view no : {"false", "0", "off", "no"})
        if (text == no)
            return false;
    return std::nullopt;
}

std::optional<std::string> parse_bytes(std::string_view text, ByteStyle style)
{
    return style == ByteStyle::hex ? from_hex(text) : from_base64(text);
}

std::optional<std::string> parse_plain(uint32_t type, std::string_view text, ByteStyle style)
{
    if (is_text_type(type))
        return std::string(text);
    if (is_binary_type(type))
        return parse_bytes(text, style);
    if (type == KP_TYPE_BOOLEAN) {
        const auto value = parse_boolean(text);
        return value ? std::optional(std::string(1, *value ? '\1' : '\0')) : std::nullopt;
    }
    return with_number(type, [text](auto value) -> std::optional<std::string> {
        return parse_number(text, value) ? std::optional(to_bytes(value)) : std::nullopt;
    });
}

std::string expectation(uint32_t type, ByteStyle style)
{
    if (is_binary_type(type))
        return style == ByteStyle::hex ? "pairs of hexadecimal digits" : "base64";
    if (type == KP_TYPE_BOOLEAN)
        return "true or false";
    return std::string(kp_type2str(type)) + " in its range";
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
    return type > KP_TYPE_BOOLEAN && type <= KP_TYPE_DOUBLE;
}

std::string value_text(uint32_t type, std::string_view bytes, ByteStyle style)
{
    if (is_text_type(type))
        return escaped(bytes);
    if (is_binary_type(type))
        return style == ByteStyle::hex ? to_hex(bytes) : to_base64(bytes);
    if (type == KP_TYPE_BOOLEAN)
        return from_bytes<uint8_t>(bytes) != 0 ? "true" : "false";
    return with_number(
        type, [bytes](auto value) { return number_text(from_bytes<decltype(value)>(bytes)); });
}

nlohmann::ordered_json value_json(uint32_t type, std::string_view bytes, ByteStyle style)
{
    if (is_text_type(type))
        return std::string(bytes);
    if (is_binary_type(type))
        return value_text(type, bytes, style);
    if (type == KP_TYPE_BOOLEAN)
        return from_bytes<uint8_t>(bytes) != 0;
    return with_number(type, [bytes](auto zero) -> nlohmann::ordered_json {
        const auto value = from_bytes<decltype(zero)>(bytes);
        if constexpr (std::is_floating_point_v<decltype(zero)>) {
            if (!std::isfinite(value))
                return number_text(value);
            // Through the text of its own width: as a double, 0.1f would show digits that it has not.
            return std::strtod(number_text(value).c_str(), nullptr);
        } else {
            return value;
        }
    });
}

std::optional<std::string> parse_value(uint32_t type, std::string_view text, ByteStyle style,
                                       Problem &problem)
{
    auto bytes = parse_plain(type, text, style);
    if (!bytes)
        problem = {kUsage,
                   "\"" + shortened(escaped(text), 60) + "\" is not " + expectation(type, style)};
    else if (bytes->empty())
        problem = {kUsage, "an empty value cannot be stored"};
    else if (bytes->size() > KP_MAX_VALUE_SIZE)
        problem = {kUsage, "a value of " + std::to_string(bytes->size()) +
                               " bytes is longer than the largest, " +
                               std::to_string(KP_MAX_VALUE_SIZE)};
    else
        return bytes;
    return std::nullopt;
}

std::optional<std::string> parse_json_value(uint32_t type, const nlohmann::json &value,
                                            ByteStyle style, Problem &problem)
{
    if (value.is_string())
        return parse_value(type, value.get_ref<const std::string &>(), style, problem);
    const bool fits = value.is_boolean() ? type == KP_TYPE_BOOLEAN
                                         : value.is_number() && !has_variable_size(type);
    if (fits)
        return parse_value(type, value.dump(), style, problem);
    problem = {kUsage, shortened(escaped(value.dump()), 60) + " is not " +
                           (is_text_type(type) ? "a string" : expectation(type, style))};
    return std::nullopt;
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
