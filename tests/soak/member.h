// One process of the soak. It provides a topic, follows the others' topics, and tells the driver
// through shared memory what it holds.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

constexpr int kMembers = 10;  // they are connected to each other all the time
constexpr int kVisitors = 26; // they come and go; an endpoint has no room for all of them
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
    std::atomic<bool> writing; // while false, the members pause: last values can be compared
    // These are set before the members start.
    unsigned pause_us = 30'000;         // that a member makes between two writes
    unsigned connection_us = 1'000'000; // time to connect before a topic is announced
    std::array<Report, kProcesses> reports;
};

std::string topic_of(int number);

// Runs as member `number` until SIGTERM comes. Returns the exit status.
int run_member(int number, Board &board);

} // namespace soak
