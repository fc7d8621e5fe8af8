// What the dictionary has to do with a value that a user sets: it gives values their names and a
// new topic its type, and it knows which values make no sense.
#pragma once

#include "writing/record_line.h"

namespace kp::tool {

// Says of a new topic what it is, where the user has not.
void take_declaration(Write &write);

// The value that a text stands for: the number behind a name of this topic, else the text as it is.
std::string value_behind_name(const std::string &topic, const std::string &text);

// The same for the value of a record of this type.
void take_value_behind_name(Record &record, uint32_t type);

// False, with a problem, for a value outside the topic's range.
bool check_range(const std::string &topic, uint32_t type, const std::string &bytes,
                 Problem &problem);

} // namespace kp::tool
