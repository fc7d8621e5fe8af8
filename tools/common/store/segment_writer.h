// Writes a topic as the library's instant write does, but through descriptors: no link in the store
// is followed, nothing stays mapped, and a topic that could not be written whole is not left behind
// empty.
#pragma once

#include "common/store/store_files.h"

#include <optional>
#include <string_view>

namespace kp::tool {

// What a provider says of its topic. Declaring clears the value.
struct Declaration {
    uint32_t type = 0;
    uint32_t max = 0; // bytes; the most that a value may have
    uint32_t extra = 0;
};

struct StoredValue {
    std::string_view bytes; // at most 4000
    uint32_t type = 0;
    uint32_t extra = 0;
    uint64_t timestamp = 0; // microseconds since the epoch
    uint64_t source_ts = 0; // the same unit
    uint8_t quality = 0;    // 255 keeps what is there
};

// Makes the topic if there is none, and then declares it and stores the value, if these are given.
// Readers see it all at once. False with a problem; errno then says why, or is 0.
bool store_segment(TopicOpener &opener, const std::string &topic,
                   const std::optional<Declaration> &declaration,
                   const std::optional<StoredValue> &value, Problem &problem);

} // namespace kp::tool
