// What the dictionary has to do with a value that a user sets: it gives values their names and a
// new topic its type, and it knows which values make no sense.
#pragma once

#include "common/dictionary/facts.h"
#include "common/writing/record_line.h"

namespace kp::tool {

// Says of a new topic what it is, where the user has not.
void take_declaration(Write &write, const Facts &facts);

// The value that a text stands for: the number behind a name, else the text as it is.
std::string value_behind_name(const Facts &facts, const std::string &text);

// False, with a problem, for a value outside the topic's range.
bool check_range(const Write &write, const Facts &facts, uint32_t type, const std::string &bytes,
                 Problem &problem);

// Stores the value that a record names, after every check. With `change_type` in its write the
// range does not count. Gives what the topic was before; nothing, with a problem, when nothing was
// stored.
std::optional<Target> store_meant_record(Record &record, const Facts &facts, Problem &problem);

} // namespace kp::tool
