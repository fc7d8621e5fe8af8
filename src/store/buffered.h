// What lies behind the buffered write and is exported for its name in log lines.
#pragma once

#include "store/segment.h"

extern "C" {

// Says with 0 that a value of `size` bytes may be written, with -1 and a log line that it may not.
KP_API int32_t kp_shm_check_written_value_size(const kp::Segment &segment, uint32_t size);
}
