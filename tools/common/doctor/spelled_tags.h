// How applications spell the topics that they have open. The file of a topic is the same for `a/b` and
// `a//b`, the bucket of its change notices is not; the spelling stands in the tag alone, in the
// application's memory.
#pragma once

#include "common/file_id.h"

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

// The tags of all processes whose memory this one may read, by the segment's file. Reads memory and
// stops nobody; a process that changes meanwhile may be read in part.
std::map<FileId, std::vector<SpelledTag>> find_spelled_tags(dev_t store);

} // namespace kp::tool
