#include "value_text.h"

#include "kp.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <strings.h>

namespace kp::mqtt {

namespace {

// Calls `use` with a null pointer of the C++ type that a fixed-size type's bytes have.
template <typename Use> auto with_type(uint32_t type, Use use)
{
    switch (type) {
    case KP_TYPE_INT8:
        return use(static_cast<int8_t *>(nullptr));
    case KP_TYPE_INT16:
        return use(static_cast<int16_t *>(nullptr));
    case KP_TYPE_INT32:
        return use(static_cast<int32_t *>(nullptr));
    case KP_TYPE_INT64:
        return use(static_cast<int64_t *>(nullptr));
    case KP_TYPE_UINT16:
        return use(static_cast<uint16_t *>(nullptr));
    case KP_TYPE_UINT32:
        return use(static_cast<uint32_t *>(nullptr));
    case KP_TYPE_UINT64:
        return use(static_cast<uint64_t *>(nullptr));
    case KP_TYPE_FLOAT:
        return use(static_cast<float *>(nullptr));
    case KP_TYPE_DOUBLE:
        return use(static_cast<double *>(nullptr));
    default: // boolean and uint8
        return use(static_cast<uint8_t *>(nullptr));
    }
}

template <typename T> T from_bytes(std::string_view bytes)
{
    T value{};
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
}

template <typename T> std::string to_bytes(T value)
{
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::string number_text(uint32_t type, std::string_view bytes)
{
    return with_type(type, [bytes]<typename T>(T *) {
        std::array<char, 32> room;
        const auto end = std::to_chars(room.begin(), room.end(), from_bytes<T>(bytes)).ptr;
        return std::string(room.begin(), end);
    });
}

Result<std::string> number_bytes(uint32_t type, std::string_view text)
{
    return with_type(type, [text]<typename T>(T *) {
        T value{};
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc::result_out_of_range)
            return Result<std::string>::failed("it is out of the type's range");
        if (error != std::errc{} || end != text.data() + text.size())
            return Result<std::string>::failed("it is no value of the type");
        return Result<std::string>::of(to_bytes(value));
    });
}

Result<std::string> boolean_bytes(const std::string &text)
{
    const auto is = [&text](const char *word) { return strcasecmp(text.c_str(), word) == 0; };
    if (is("true") || is("1") || is("on"))
        return Result<std::string>::of(to_bytes<uint8_t>(1));
    if (is("false") || is("0") || is("off"))
        return Result<std::string>::of(to_bytes<uint8_t>(0));
    return Result<std::string>::failed("it is no boolean");
}

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

bool is_number(uint32_t type)
{
    return type >= KP_TYPE_INT8 && type <= KP_TYPE_DOUBLE;
}

bool is_floating(uint32_t type)
{
    return type == KP_TYPE_FLOAT || type == KP_TYPE_DOUBLE;
}

bool has_variable_size(uint32_t type)
{
    return type >= KP_TYPE_STRING && type <= KP_TYPE_RAW;
}

double as_double(uint32_t type, std::string_view bytes)
{
    return with_type(
        type, [bytes]<typename T>(T *) { return static_cast<double>(from_bytes<T>(bytes)); });
}

std::string value_text(uint32_t type, std::string_view bytes)
{
    if (has_variable_size(type))
        return std::string(bytes);
    if (bytes.size() != kp_get_value_size(type, 0))
        return {};
    if (type == KP_TYPE_BOOLEAN)
        return bytes[0] ? "true" : "false";
    return number_text(type, bytes);
}

Result<std::string> value_bytes(uint32_t type, uint32_t max_size, std::string_view text)
{
    if (has_variable_size(type))
        return checked_bytes(type, max_size, text);
    if (type == KP_TYPE_BOOLEAN)
        return boolean_bytes(std::string(text));
    return number_bytes(type, text);
}

Result<std::string> checked_bytes(uint32_t type, uint32_t max_size, std::string_view bytes)
{
    if (bytes.empty())
        return Result<std::string>::failed("it is empty");
    if (has_variable_size(type) && bytes.size() > max_size)
        return Result<std::string>::failed("it has " + std::to_string(bytes.size()) +
                                           " bytes of at most " + std::to_string(max_size));
    if (!has_variable_size(type) && bytes.size() != kp_get_value_size(type, 0))
        return Result<std::string>::failed("it has " + std::to_string(bytes.size()) +
                                           " bytes, the type another number");
    return Result<std::string>::of(std::string(bytes));
}

std::string base64(std::string_view bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.size(); at += 3) {
        uint32_t group = 0;
        for (size_t byte = 0; byte < 3; ++byte)
            group = group << 8 |
                    (at + byte < bytes.size() ? static_cast<uint8_t>(bytes[at + byte]) : 0u);
        const size_t given = std::min<size_t>(bytes.size() - at, 3);
        for (size_t digit = 0; digit < 4; ++digit)
            text += digit <= given ? kBase64[group >> (18 - 6 * digit) & 63] : '=';
    }
    return text;
}

Result<std::string> from_base64(std::string_view text)
{
    std::string bytes;
    uint32_t bits = 0;
    unsigned count = 0;
    const size_t digits = std::min(text.find('='), text.size());
    if (text.size() % 4 != 0 || text.size() - digits > 2 ||
        text.find_first_not_of('=', digits) != text.npos)
        return Result<std::string>::failed("it is no base64");
    for (const char c : text.substr(0, digits)) {
        const size_t digit = kBase64.find(c);
        if (digit == kBase64.npos)
            return Result<std::string>::failed("it is no base64");
        bits = bits << 6 | static_cast<uint32_t>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xff);
        }
    }
    return Result<std::string>::of(std::move(bytes));
}

} // namespace kp::mqtt
