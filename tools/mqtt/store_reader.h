// Reads the store without a trace: it takes no count and no lock, needs read permission only, and
// holds nothing open, so that a topic goes when its users leave it and a file that was made anew is
// read anew. Values are read with pread(), not through a mapping, since a mapped file that somebody
// cuts short is a fatal signal.
#pragma once

#include "layout/unique_fd.h"
#include "sample.h"

#include <functional>
#include <string>
#include <string_view>

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
    // Below 64 directories it does not look, and says so once.
    bool for_each_topic(const std::function<void(const std::string &topic)> &visit) const;

    // What stands at a topic's place: a new tag fits only where nothing does.
    enum class Place { free, topic, directory, below_a_topic };
    Place place(const std::string &topic) const;

    // The tag that stands for a name now: in the store a cannot have a value beside a/b, so that a/_
    // has it.
    std::string standing_for(std::string name) const;

  private:
    mutable bool reported_depth_ = false;
};

} // namespace kp::mqtt
