// Stores what a record line says.
#pragma once

#include "common/writing/notice_sender.h"
#include "common/writing/record_line.h"

namespace kp::tool {

// Stores the record's value and marks its topic for the next notice. A record without a value only
// declares the topic. False with a problem when that is not possible.
bool store_record(const Record &record, NoticeSender &sender, Problem &problem);

} // namespace kp::tool
