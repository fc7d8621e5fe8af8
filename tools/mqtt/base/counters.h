// What the bridge counts and shows as tags.
#pragma once

#include <atomic>
#include <cstdint>

namespace kp::mqtt {

struct Counters {
    std::atomic<uint64_t> out = 0;        // publications that the broker has, or at QoS 0 was sent
    std::atomic<uint64_t> in = 0;         // values written from messages
    std::atomic<uint64_t> refused = 0;    // messages and publications that could not be taken
    std::atomic<uint64_t> echoes = 0;     // own messages that came back, and values already there
    std::atomic<uint64_t> empty = 0;      // messages without a payload, which are no commands
    std::atomic<uint64_t> reconnects = 0; // connections after the first
};

} // namespace kp::mqtt
