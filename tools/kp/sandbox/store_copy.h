// A copy of the store in a directory of the user's, kept after its sandbox has gone.
#pragma once

#include "layout/unique_fd.h"
#include "running/outcome.h"

#include <string>

namespace kp::tool {

class StoreCopy {
  public:
    // Opens the directory, making it when it is missing; it must be empty. False with a problem.
    bool open(const std::string &directory, Problem &problem);

    // Copies every segment of the store that this process sees, each as a file named by its topic.
    // Files and directories get the rights of their originals.
    // What cannot be copied is noted in `outcome`; the rest is copied all the same.
    void take(Outcome &outcome) const;

  private:
    bool copy_topic(const std::string &topic, Problem &problem) const;
    // Makes the topic's file, and opens the directory that it lies in.
    UniqueFd make_file(const std::string &topic, UniqueFd &parent) const;

    std::string name_;
    UniqueFd directory_;
};

} // namespace kp::tool
