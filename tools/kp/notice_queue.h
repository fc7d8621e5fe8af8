// The change notices of all peers through a handle of the library, gathered in one bitmap until the
// program has time for them: its output may stall, the receive thread never waits for it.
#pragma once

#include "problem.h"
#include "kp.h"
#include "layout/unique_fd.h"

#include <memory>

namespace kp::tool {

class NoticeQueue {
  public:
    // Joins the mesh; null with a problem.
    static std::unique_ptr<NoticeQueue> join(Problem &problem);
    NoticeQueue(const NoticeQueue &) = delete;
    NoticeQueue &operator=(const NoticeQueue &) = delete;
    ~NoticeQueue();

    // Readable while there is something to take.
    int fd() const
    {
        return event_.get();
    }
    // The buckets of all notices since the last time.
    kp_write_info take();

  private:
    explicit NoticeQueue(int event) : event_(event)
    {
    }

    UniqueFd event_;
    kp_t *handle_ = nullptr;
};

bool has_bucket(const kp_write_info &notice, uint32_t bucket);

} // namespace kp::tool
