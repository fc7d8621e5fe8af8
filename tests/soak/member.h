// One process of the soak: provides a topic, follows others, and tells the driver through shared
// memory what it holds.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

constexpr int kMembers = 10;  // connected to each other all the time
constexpr int kVisitors = 26; // come and go; with them an endpoint has more peers than it has room
constexpr int kProcesses = kMembers + kVisitors;

struct Report {
    std::atomic<uint32_t> written;                    // the value last written and announced
    std::array<std::atomic<uint32_t>, kMembers> held; // the value last read in the callback
    std::atomic<uint64_t> updates;                    // written since the soak began
    std::atomic<uint64_t> notices;                    // received since the soak began
    std::atomic<uint32_t> heartbeat;
    std::atomic<bool> fill_descriptors; // asks the member to use up its descriptors for a moment
};

struct Board {
    std::atomic<bool> writing; // cleared: the members pause, so that last values can be compared
    // Set before the members start.
    unsigned pause_us = 30'000;         // of a member between two writes
    unsigned connection_us = 1'000'000; // an announcement reaches those that are connected by then
    std::array<Report, kProcesses> reports;
};

std::string topic_of(int number);

// The life of member `number`; ends with SIGTERM. Returns its exit status.
int run_member(int number, Board &board);

} // namespace soak
