// Reads the store in the terms of the bridge. The looks themselves are those of all tools.
#pragma once

#include "base/clock.h"
#include "common/store/segment_reader.h"
#include "common/store/store_files.h"
#include "store/sample.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

enum class ReadOutcome {
    read,       // a declared topic; it may have no value
    undeclared, // a consumer waits for a provider that has not come yet
    missing,
    busy,    // a write in progress, or one whose writer was killed
    refused, // no segment, a corrupt one, or no permission
};

// One thread reads; any may ask for names.
class StoreReader {
  public:
    // Reads a topic. The sample is unspecified unless the outcome is `read`, or `busy`: then it has
    // no value, but says as what the topic is declared. Waits some milliseconds for a write to end,
    // but only once for the same write, and not again at once for a topic that is written on.
    ReadOutcome read(const std::string &topic, Sample &sample) const;

    // Calls `visit` with every topic, at any depth. Returns false when the store cannot be listed,
    // which also means that it has not been made yet.
    bool for_each_topic(const std::function<void(const std::string &topic)> &visit) const;

    // Gives the tag that holds the value of a name now. Topic `a` cannot be both a file and the
    // directory of `a/b`. Its value is then stored as `a/_`.
    std::string standing_for(std::string name) const;

  private:
    // A write whose end was waited for in vain.
    struct Unfinished {
        ino_t file;
        uint64_t ts; // of the write
        Clock::time_point until;
    };
    std::optional<tool::Snapshot> look_at(const std::string &topic, tool::Problem &problem) const;

    mutable std::unordered_map<std::string, Unfinished> unfinished_; // by topic
};

} // namespace kp::mqtt
