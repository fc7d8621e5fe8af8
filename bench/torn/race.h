// One process that writes a topic, and others that read it meanwhile as fast as they can.
#pragma once

#include "tag.h"

#include <array>
#include <cstdint>

namespace torn {

constexpr uint32_t kMostReaders = 8;

enum class Pace { full_speed, every_2_us, at_1_khz, flipping };
constexpr std::array<const char *, 4> kPaceNames{"full speed", "every 2 us", "1 kHz",
                                                 "two values, one timestamp"};

struct Run {
    uint32_t size;
    Pace pace;
    Read kind;
    uint32_t readers;
    double seconds;
    bool disturb;
};

// What was done to the writers of all runs.
struct Disturbances {
    uint64_t stops = 0;
    uint64_t kills = 0;
};

struct Counts {
    uint64_t reads;
    uint64_t torn; // bytes of two writes, or a quality or source timestamp of another one
    uint64_t failed;
    uint64_t stale; // older than a write that was over when the read began
};

// Lets the processes run for the time of the run. Gives the counts of all readers, and adds to the
// disturbances. False when a process could not do its part.
bool measure(const Run &run, Counts &sum, Disturbances &disturbances);

} // namespace torn
