// Writes topics as the library's instant write does, but after more checks. A topic keeps what its
// provider declared; only a new topic is declared here.
#pragma once

#include "common/store/segment_reader.h"

namespace kp::tool {

// What a user can do about a refusal, in the words of the program at hand.
struct Remedies {
    const char *new_topic = "say its type";
    const char *other_type = "";
    const char *out_of_range = "";
};

struct Write {
    std::string topic;
    std::string spelling;         // the topic as it was given, with all its slashes
    std::optional<uint32_t> type; // the wanted type; a new topic needs one
    std::optional<uint32_t> max;  // of a new topic of variable size, 0: none; 4000 unless given
    std::optional<uint32_t> extra;
    std::optional<uint32_t> meant_type; // what the dictionary says of a new topic
    std::optional<uint32_t> meant_max;  // the same
    std::optional<uint8_t> quality;     // 1 unless given
    std::optional<uint64_t> timestamp;
    std::optional<uint64_t> source_ts; // the timestamp unless given
    bool change_type = false;          // declares the topic anew if its type or `max` differs
    Remedies remedies = {};
};

// What a topic is before it is written.
struct Target {
    uint32_t type = 0;
    uint32_t max = 0;
    uint32_t extra = 0;
    bool is_new = false; // to be declared
    Snapshot before;
};

// Looks at the topic and decides on its type. Gives nothing, with a problem, when the topic cannot
// be written like this.
std::optional<Target> find_target(const Write &write, Problem &problem);

// Declares the topic if it is new, and stores the value. Without bytes it only declares the topic.
bool store_value(const Write &write, const Target &target, const std::optional<std::string> &bytes,
                 Problem &problem);

} // namespace kp::tool
