// What the library itself needs of lists beside the public functions: inserts that say whether they
// succeeded, and a way to take the whole chain.
#pragma once

#include "kp.h"

namespace kp {

// Like kplist_add(); false when out of memory, and the element is still the caller's.
bool insert_at_head(kplist &list, void *element);

// Like kplist_append(); false when out of memory.
bool insert_at_tail(kplist &list, void *element);

// Empties the list and returns its chain, linked by `next`, which the caller frees.
kplist_node *take_chain(kplist &list);

} // namespace kp
