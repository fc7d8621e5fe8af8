// The course of a soak: who takes part, and what was counted.
#pragma once

#include "soak/family.h"

#include <chrono>
#include <random>

namespace soak {

struct Course {
    Board &board;
    Family &family;
    int members = kMembers;                   // how many take part
    std::chrono::milliseconds patience{1000}; // until a last value must have come
    uint64_t faults = 0;                      // disturbances so far
    uint64_t lost = 0;                        // values that did not come in time
    unsigned sockets_left = 0;                // that were there after the end
    int failures = 0;
    double worst_ms = 0; // the longest time to a last value

    Course(Board &all_reports, Family &processes) : board(all_reports), family(processes)
    {
    }

    void fail(const std::string &what);
    // Gives a number from 0 to `below` - 1. Every soak gets the same numbers.
    int pick(int below);
    // Ends a process, and fails when something was wrong with that.
    void end(int number, int signal);

  private:
    std::mt19937 dice_{1};
};

} // namespace soak
