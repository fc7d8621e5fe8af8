// Removing a segment's file: after its last handle, or when the open that created it has failed.
#pragma once

#include "store/segment_file.h"

namespace kp {

// Removes the file under a path if it is still the one that `shm` has mapped, and nobody has counted
// a handle in since the counts were seen at 0. Where no descriptor can be had for it the file stays,
// with counts of 0, for its next user to remove: removed without the lock it could be taken away from
// somebody who is just opening it.
void remove_unused(const char *path, const kp_shm_t &shm);

// Removes a file that the caller has just created and cannot make a segment of, unless somebody else
// has begun to use it.
void remove_leftover(const char *path, const UniqueFd &fd);

} // namespace kp
