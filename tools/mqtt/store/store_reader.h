// Reads the store in the terms of the bridge. The looks themselves are those of all tools.
#pragma once

#include "common/store_files.h"
#include "store/sample.h"

#include <functional>
#include <string>

namespace kp::mqtt {

enum class ReadOutcome {
    read,       // a declared topic; it may have no value
    undeclared, // a consumer waits for a provider that has not come yet
    missing,
    busy,    // a write in progress, or one whose writer was killed
    refused, // no segment, a corrupt one, or no permission
};

class StoreReader {
  public:
    // Reads a topic; the sample is unspecified unless the outcome is `read`.
    ReadOutcome read(const std::string &topic, Sample &sample) const;

    // Calls `visit` with every topic, at any depth. Returns false when the store cannot be listed,
    // which also means that it has not been made yet.
    bool for_each_topic(const std::function<void(const std::string &topic)> &visit) const;

    // Gives the tag that holds the value of a name now. Topic `a` cannot be both a file and the
    // directory of `a/b`. Its value is then stored as `a/_`.
    std::string standing_for(std::string name) const;
};

} // namespace kp::mqtt
