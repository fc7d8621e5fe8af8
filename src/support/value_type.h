// What the rest of the library needs to know about value types beside the public functions.
#pragma once

#include "kp.h"

namespace kp {

constexpr uint32_t kValueTypeCount = 14;
constexpr uint32_t kLargestFixedSize = 8;

constexpr bool has_variable_size(uint32_t value_type)
{
    return value_type == KP_TYPE_STRING || value_type == KP_TYPE_BYTEARRAY ||
           value_type == KP_TYPE_RAW;
}

} // namespace kp
