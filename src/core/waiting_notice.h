// The change notice that waits for the application's own thread, once the handle has a descriptor.
#pragma once

#include "core/handle.h"
#include "layout/field.h"

namespace kp {

// Says whether notices wait for kp_take_notice() instead of going to the callback. It is inline,
// because it is asked twice for every notice that a callback gets.
inline bool has_notice_fd(const kp_t &handle)
{
    return load_acquire(handle.notice_fd) != 0;
}

// Adds the bits of a received notice to those that wait, and makes the descriptor readable. Only
// the receive thread calls it. It takes no lock.
void merge_notice(kp_t &handle, const uint8_t *notice);

} // namespace kp
