// The limits of a latest value in shared memory. Nothing that stores a value with its time there,
// so that a reader can tell a value under way, can do with less.
#pragma once

#include "values/store.h"

namespace bench {

// A mapped file for each topic, and in it what the library's format needs at the least: the clock
// is read, the ordered stores made, the bytes copied; nothing is checked. The fields stand where a
// segment has them, so that the same cache lines travel.
OpenStore mapped_limit();

// The same copy, but the file is looked for, opened, mapped, unmapped and closed each time.
OpenStore remapped_limit();

} // namespace bench
