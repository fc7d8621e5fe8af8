// The closed table of value types, and what the rest of the library needs to know about them beside
// the public functions. The codes stand in every segment file, so they never change.
#pragma once

#include "kp.h"

#include <algorithm>
#include <array>

namespace kp {

constexpr uint32_t kValueTypeCount = 14;
constexpr uint32_t kLargestFixedSize = 8;

struct ValueType {
    uint32_t code;
    const char *name;
    uint32_t fixed_size; // 0 for the types of variable size
};

inline constexpr std::array<ValueType, kValueTypeCount> kValueTypes{
    {{KP_TYPE_BOOLEAN, "boolean", 1},
     {KP_TYPE_INT8, "int8", 1},
     {KP_TYPE_INT16, "int16", 2},
     {KP_TYPE_INT32, "int32", 4},
     {KP_TYPE_INT64, "int64", 8},
     {KP_TYPE_UINT8, "uint8", 1},
     {KP_TYPE_UINT16, "uint16", 2},
     {KP_TYPE_UINT32, "uint32", 4},
     {KP_TYPE_UINT64, "uint64", 8},
     {KP_TYPE_FLOAT, "float", 4},
     {KP_TYPE_DOUBLE, "double", 8},
     {KP_TYPE_STRING, "string", 0},
     {KP_TYPE_BYTEARRAY, "bytearray", 0},
     {KP_TYPE_RAW, "raw", 0}}};

constexpr bool every_code_is_its_index()
{
    for (uint32_t index = 0; index < kValueTypes.size(); ++index)
        if (kValueTypes[index].code != index)
            return false;
    return true;
}
static_assert(every_code_is_its_index(), "codes are looked up by index");

constexpr bool has_variable_size(uint32_t value_type)
{
    return value_type == KP_TYPE_STRING || value_type == KP_TYPE_BYTEARRAY ||
           value_type == KP_TYPE_RAW;
}

// The size in bytes of a value whose type is one of those above.
constexpr uint32_t size_of_known_type(uint32_t value_type, uint32_t size)
{
    const uint32_t fixed_size = kValueTypes[value_type].fixed_size;
    return fixed_size != 0 ? fixed_size : std::min<uint32_t>(size, KP_MAX_VALUE_SIZE);
}

} // namespace kp
