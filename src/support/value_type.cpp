// Looking up value types.
#include "layout/value_type.h"

#include "support/log.h"

#include <cstring>

using namespace kp;

uint32_t kp_str2type(const char *name)
{
    if (is_null(name, "type_str is null\n"))
        return UINT32_MAX;
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
    return size_of_known_type(value_type, size);
}
