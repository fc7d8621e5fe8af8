// Times and ages as text.
#pragma once

#include "common/clock.h"

#include <cstdint>
#include <string>

namespace kp::tool {

enum class TimeStyle { local, utc, epoch, relative };

// 2026-11-20T20:30:00.123456Z
std::string iso_utc(uint64_t us);
// 2026-11-20 21:30:00.123456, in the zone of TZ
std::string local_time(uint64_t us);
// Gives the time in a style; the relative one is the age.
std::string time_text(uint64_t us, TimeStyle style, uint64_t now);

// Three digits and a unit: 250us, 1.20s, 3.5m, 2.1h, 4.0d; "future" for a stamp that is to come.
std::string age_text(uint64_t us, uint64_t now);
std::string duration_text(uint64_t us);

} // namespace kp::tool
