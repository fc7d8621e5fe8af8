// The semaphore that guards a segment's counts, looked at and never touched.
#pragma once

#include "common/store_files.h"

namespace kp::tool {

struct CountsLock {
    bool is_made = false; // by a handle; a one-shot write needs none
    uint32_t value = 0;   // 1 while nobody holds it

    bool is_taken() const
    {
        return is_made && value == 0;
    }
};

// Nothing for what cannot be read.
std::optional<CountsLock> look_at_counts_lock(TopicOpener &opener, const std::string &topic);

// Those of the topics whose semaphore stays taken, which takes some looks: a count is changed in less
// than a microsecond, so its holder was killed or does not run.
std::vector<std::string> topics_that_stay_locked(TopicOpener &opener,
                                                 std::vector<std::string> topics);

} // namespace kp::tool
