// What came of acting on something dead.
#pragma once

#include "common/problem.h"

namespace kp::tool {

enum class Deed {
    done,
    changed, // it is not what was proved dead any more, so it was left alone
    failed,
};

struct DeedResult {
    Deed deed = Deed::changed;
    Problem problem = {}; // why it failed
};

} // namespace kp::tool
