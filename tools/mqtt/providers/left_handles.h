// Closes what a run that was killed has left open, as far as it can be told from the handles of
// programs that live.
#pragma once

#include "store/handle_record.h"

namespace kp::mqtt {

// Gives back the counts of an earlier run, so that its tags go if nobody else has them open, as
// they do when a run leaves in order. This needs a look at all processes, or the word that those
// which can be seen are all; where it cannot be had, and where a tag is opened or closed meanwhile,
// the tag stays among those that are left. Call it before this run opens tags.
void give_back_left_handles(HandleRecord &record, bool trust_visible);

} // namespace kp::mqtt
