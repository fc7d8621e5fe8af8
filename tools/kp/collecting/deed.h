// The result of a removal or a correction that `kp gc` has tried.
#pragma once

#include "common/problem.h"

namespace kp::tool {

enum class Deed {
    done,
    changed, // it has changed since it was proved dead, so it was left alone
    failed,
};

struct DeedResult {
    Deed deed = Deed::changed;
    Problem problem = {}; // why it failed
};

} // namespace kp::tool
