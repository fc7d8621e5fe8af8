// Makes text of values. Provider and consumer share it, so that what one wrote can be compared with
// what the other saw.
#ifndef VALUE_TEXT_H
#define VALUE_TEXT_H

#include <kp.h>

enum { VALUE_TEXT_SIZE = 160 };

// Formats a value of one of the demo's types into VALUE_TEXT_SIZE bytes.
void value_text(char *out, uint32_t value_type, const void *value, uint32_t size);

#endif
