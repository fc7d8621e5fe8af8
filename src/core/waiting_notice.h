// The change notice that waits for the application's own thread, once the handle has a descriptor.
#pragma once

#include "kp.h"

namespace kp {

// Whether notices wait for kp_take_notice() instead of going to the callback.
bool has_notice_fd(const kp_t &handle);

// Adds the bits of a received notice to those that wait, and makes the descriptor readable. For the
// receive thread; takes no lock.
void merge_notice(kp_t &handle, const uint8_t *notice);

} // namespace kp
