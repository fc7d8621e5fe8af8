// What a user of the command line can do when a write is refused.
#pragma once

#include "common/writing/writer.h"

namespace kp::tool {

inline constexpr Remedies kRemedies = {"say its type with --type", " (--force changes it)",
                                       " (--force sets it)"};

} // namespace kp::tool
