// How applications spell the topics that they have open. `a/b` and `a//b` have the same file, but
// not the same bucket in change notices. Only the tag, in the application's memory, has the
// spelling.
#pragma once

#include "common/system/file_id.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kp::tool {

struct SpelledTag {
    pid_t pid = 0;
    uint32_t role = 0;
    std::string topic;
};

// Finds the tags of all processes whose memory this one may read, by the segment's file. It reads
// memory and stops nobody, so what it reads of a process that changes meanwhile may be incomplete.
std::map<FileId, std::vector<SpelledTag>> find_spelled_tags(dev_t store);

} // namespace kp::tool
