// The limits of a latest value in shared memory. Whoever stores a value with its time there, so
// that a reader can tell a value under way, needs at least this.
#pragma once

#include "values/store.h"

namespace bench {

// A mapped file for each topic, and in it what the library's format needs at the least: the clock
// is read, the ordered stores made, the bytes copied; nothing is checked. The fields stand where a
// segment has them, so that the same cache lines travel.
OpenStore mapped_limit();

// Makes the same copy, but looks for the file, opens, maps, unmaps and closes it each time.
OpenStore remapped_limit();

} // namespace bench
