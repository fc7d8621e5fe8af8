// What happens to the members in the course of a soak.
#pragma once

#include "soak/course.h"

namespace soak {

// Kills a member and starts it again.
void restart_killed(Course &course);

// Disturbs the members in the way that is due in this round.
void disturb(Course &course, unsigned round);

} // namespace soak
