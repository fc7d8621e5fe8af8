// The semaphore that guards a segment's counts. The tools look at it and never change it.
#pragma once

#include "common/store/store_files.h"

#include <vector>

namespace kp::tool {

struct CountsLock {
    bool is_made = false; // by a handle; an instant write needs no semaphore
    uint32_t value = 0;   // 1 while nobody holds it

    bool is_taken() const
    {
        return is_made && value == 0;
    }
};

// Gives nothing if the segment cannot be read.
std::optional<CountsLock> look_at_counts_lock(TopicOpener &opener, const std::string &topic);

// Finds those of the topics whose semaphore stays taken. It looks several times: a count is changed
// in less than a microsecond, so whoever holds the semaphore for longer was killed or does not run.
std::vector<std::string> topics_that_stay_locked(TopicOpener &opener,
                                                 std::vector<std::string> topics);

} // namespace kp::tool
