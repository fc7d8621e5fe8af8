// Writing topics the way the library does, after checks that its one-shot write leaves out. The
// topic stays what its provider declared; only a new one is declared here.
#pragma once

#include "common/segment_reader.h"

namespace kp::tool {

struct Write {
    std::string topic;
    std::string spelling;         // the topic as it was given, with all its slashes
    std::optional<uint32_t> type; // wanted; needed for a new topic
    std::optional<uint32_t> max;  // of a new topic of variable size, or 0; 4000 else
    std::optional<uint32_t> extra;
    std::optional<uint8_t> quality; // 1 else
    std::optional<uint64_t> timestamp;
    std::optional<uint64_t> source_ts; // the timestamp else
    bool change_type = false; // declare anew where the type, or a maximum that is wanted, differs
};

// What a topic is before it is written.
struct Target {
    uint32_t type = 0;
    uint32_t max = 0;
    uint32_t extra = 0;
    bool is_new = false; // to be declared
    Snapshot before;
};

// Looks at the topic and settles its type; nothing with a problem when it cannot be written so.
std::optional<Target> find_target(const Write &write, Problem &problem);

// Declares the topic where it is new and stores the value. No bytes: only declares.
bool store_value(const Write &write, const Target &target, const std::optional<std::string> &bytes,
                 Problem &problem);

} // namespace kp::tool
