// Removing a segment's file: after its last handle, or when the open that created it has failed.
#pragma once

#include "store/segment_file.h"

namespace kp {

// Removes the file under a path if it is still the one that `shm` has mapped, and if no handle was
// counted in it since the counts were seen at 0. If no descriptor is left to take the lock with,
// the file stays, with counts of 0, and its next user removes it. Without the lock it could be
// removed under somebody who is just opening it.
void remove_unused(const char *path, const kp_shm_t &shm);

// Removes a file that the caller has just created and cannot turn into a segment, unless another
// process has begun to use it.
void remove_leftover(const char *path, const UniqueFd &fd);

} // namespace kp
