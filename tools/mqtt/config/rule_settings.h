// What a rule says about the messages of its topics.
#pragma once

#include "base/clock.h"

namespace kp::mqtt {

enum class PayloadMode {
    plain, // text for numbers and booleans, the bytes themselves for the rest
    json,  // one object with value, type, quality and times
    raw,   // the store's bytes
};

// What keeps a topic quiet, from its rule.
struct Quiet {
    milliseconds min_interval{0};
    milliseconds max_interval{0}; // after which a value is sent again; 0: never
    double deadband = 0;          // absolute; 0: none
    double relative_deadband = 0; // of the last value sent; 0: none
    double deadband_of_range = 0; // of the range that the dictionary gives; 0: none
    bool only_changes = false;    // a write of the same value is no change
};

} // namespace kp::mqtt
