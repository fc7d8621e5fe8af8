// The buckets of change notices, gathered on the library's receive thread until the program has
// time for them. Nothing here waits, allocates or grows, so a slow program never slows a writer.
#pragma once

#include "kp.h"
#include "layout/unique_fd.h"

#include <array>
#include <atomic>
#include <bitset>

namespace kp::tool {

// One bit for each bucket; kp_hash() gives a topic's bucket.
using Buckets = std::bitset<KP_BUCKET_COUNT>;

class NoticeMarks {
  public:
    NoticeMarks();

    // Any thread may call it, in the callback of kp_new() too.
    void add(const kp_write_info &notice);

    // Takes what was marked since the last call. Only one thread may call it.
    Buckets take();

    // Readable while there is something to take.
    int fd() const
    {
        return wake_.get();
    }

  private:
    std::array<std::atomic<uint8_t>, KP_BUCKET_COUNT / 8> bits_{};
    std::atomic<bool> woken_ = false;
    UniqueFd wake_;
};

} // namespace kp::tool
