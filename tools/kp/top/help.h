// The keys and colours of the live view, for its users.
#pragma once

#include <array>

namespace kp::tool {

constexpr std::array<const char *, 11> kTopHelp = {
    "q Esc F10   quit",
    "arrows, PgUp PgDn Home End   move the cursor",
    "Enter       the whole value of a topic, its last minute, and who has it open; and "
    "back",
    "s           sort by the next of topic, rate, age, size, quality",
    "r           reverse the order",
    "/           filter by a pattern, or by a part of the name; empty shows all",
    "space       freeze and go on",
    "h ?         this help",
    "",
    "red: cannot be read   yellow: quality 0 or two providers   dim: stale or no value",
    "with a dictionary also   red: lowlow, highhigh   yellow: low, high, bad quality"};

} // namespace kp::tool
