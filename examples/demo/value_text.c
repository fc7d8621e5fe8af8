#include "value_text.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

void value_text(char *out, uint32_t value_type, const void *value, uint32_t size)
{
    uint64_t number = 0;
    double real = 0;
    switch (value_type) {
    case KP_TYPE_BOOLEAN:
        snprintf(out, VALUE_TEXT_SIZE, "%s", *(const uint8_t *)value ? "true" : "false");
        break;
    case KP_TYPE_UINT64:
        memcpy(&number, value, sizeof(number));
        snprintf(out, VALUE_TEXT_SIZE, "%" PRIu64, number);
        break;
    case KP_TYPE_DOUBLE:
        memcpy(&real, value, sizeof(real));
        snprintf(out, VALUE_TEXT_SIZE, "%.2f", real);
        break;
    default:
        snprintf(out, VALUE_TEXT_SIZE, "%.*s", (int)size, (const char *)value);
        break;
    }
}
