// The closed table of value types. The codes stand in every segment file, so they never change.
#include "support/value_type.h"

#include "support/log.h"

#include <algorithm>
#include <array>
#include <cstring>

using namespace kp;

namespace {

struct ValueType {
    uint32_t code;
    const char *name;
    uint32_t fixed_size; // 0 for the types of variable size
};

constexpr std::array<ValueType, kValueTypeCount> kValueTypes{{{KP_TYPE_BOOLEAN, "boolean", 1},
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

} // namespace

uint32_t kp_str2type(const char *name)
{
    if (!name) {
        KP_ERROR("type_str is null\n");
        return UINT32_MAX;
    }
    for (const ValueType &type : kValueTypes)
        if (std::strcmp(type.name, name) == 0)
            return type.code;
    return UINT32_MAX;
}

const char *kp_type2str(uint32_t value_type)
{
    return value_type < kValueTypes.size() ? kValueTypes[value_type].name : nullptr;
}

uint32_t kp_get_value_size(uint32_t value_type, uint32_t size)
{
    if (value_type >= kValueTypes.size()) {
        KP_ERROR("value type is invalid\n");
        return 0;
    }
    if (has_variable_size(value_type))
        return std::min<uint32_t>(size, KP_MAX_VALUE_SIZE);
    return kValueTypes[value_type].fixed_size;
}
