// What a topic held at one moment, or is to hold. It has the part of a tool::Snapshot that a
// message carries and that makes a change: two are equal when the broker has nothing new to learn.
// A snapshot's other fields, such as whether a write goes on, would tell of changes that are none,
// and what is to be written comes from no segment. StoreReader alone makes one of a snapshot.
#pragma once

#include "kp.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace kp::mqtt {

struct Sample {
    uint32_t type = 0;
    uint32_t max_size = 0; // 0 when no provider ever declared the topic
    uint32_t extra_info = 0;
    uint8_t quality = KP_QUALITY_NONE;
    uint32_t providers = 0;
    uint32_t consumers = 0;
    ino_t file = 0; // tells a topic that was made anew from the one before
    bool has_value = false;
    uint64_t ts = 0;        // of the write, microseconds since the epoch
    uint64_t source_ts = 0; // of the source, the same unit
    std::string value;

    friend bool operator==(const Sample &, const Sample &) = default;
};

} // namespace kp::mqtt
