// The walk of one bucket for tags that need a read.
#pragma once

#include "kp.h"

namespace kp {

// The next tag at or behind the cursor that needs a read, or null at the end of the chain. Moves
// the cursor behind it.
kp_tag_t *next_need_read_tag(kp_dict_entry *&cursor);

} // namespace kp
