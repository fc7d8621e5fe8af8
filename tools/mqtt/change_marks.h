// The only thing that happens on the library's receive thread: the buckets of a notice are added to
// those not yet looked at, and the bridge's own thread is woken. Nothing here waits, allocates or
// grows, so a slow network never slows a writer.
#pragma once

#include "kp.h"
#include "layout/unique_fd.h"

#include <array>
#include <atomic>
#include <bitset>

namespace kp::mqtt {

using Buckets = std::bitset<KP_BUCKET_COUNT>;

class ChangeMarks {
  public:
    ChangeMarks();

    // Any thread.
    void add(const kp_write_info &notice);

    // Takes what was marked since the last time. The bridge's thread.
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

} // namespace kp::mqtt
