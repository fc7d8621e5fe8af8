// What must hold in the course of a soak. Each failure is printed and counted.
#pragma once

#include "soak/course.h"

namespace soak {

// Waits until every member has received from every other something written from now on.
void wait_until_connected(Course &course);

// The members pause, and every one must come to hold the last value of every other.
void check_last_values(Course &course);

// A member must be alive and use no more than when it was first connected. One that is dead is
// started again.
void check_process(Course &course, int number);

// Every member must go on working.
void check_heartbeats(Course &course);

} // namespace soak
