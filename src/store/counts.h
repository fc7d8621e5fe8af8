// The two counts of a segment: how many handles of each role are open in all processes. They are
// kept under the segment's process-shared semaphore, and changed atomically besides, because every
// open initialises the semaphore again and so two processes can hold it at once.
#pragma once

#include "layout/segment.h"

namespace kp {

// Adds to the count of one role and returns both counts as they are then. A count has 8 bits and
// wraps; an unknown role has none. Waits a second at most for the semaphore.
ReferenceCounts count_role(Segment &segment, uint32_t role, int amount);

} // namespace kp
