// The C++ types behind the value types of fixed size, for code that is written once for all of
// them.
#pragma once

#include "layout/value_type.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace kp::tool {

// Calls `use` with a zero of the C++ type that the bytes of such a value have; for a type of
// variable size, or a code that is no type, with a zero byte. The switch names every type, so that
// the compiler warns when a new one is missing.
template <typename Use> auto with_number(uint32_t type, const Use &use)
{
    if (type >= kValueTypeCount)
        return use(uint8_t{});
    switch (static_cast<decltype(KP_TYPE_BOOLEAN)>(type)) {
    case KP_TYPE_INT8:
        return use(int8_t{});
    case KP_TYPE_INT16:
        return use(int16_t{});
    case KP_TYPE_INT32:
        return use(int32_t{});
    case KP_TYPE_INT64:
        return use(int64_t{});
    case KP_TYPE_UINT16:
        return use(uint16_t{});
    case KP_TYPE_UINT32:
        return use(uint32_t{});
    case KP_TYPE_UINT64:
        return use(uint64_t{});
    case KP_TYPE_FLOAT:
        return use(float{});
    case KP_TYPE_DOUBLE:
        return use(double{});
    case KP_TYPE_BOOLEAN:
    case KP_TYPE_UINT8:
    case KP_TYPE_STRING:
    case KP_TYPE_BYTEARRAY:
    case KP_TYPE_RAW:
        break;
    }
    return use(uint8_t{});
}

// Bytes that are missing count as 0.
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

} // namespace kp::tool
