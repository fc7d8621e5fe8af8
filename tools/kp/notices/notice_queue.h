// Gathers the change notices of all peers through a handle of the library.
#pragma once

#include "common/notice_marks.h"
#include "common/problem.h"

#include <memory>

namespace kp::tool {

class NoticeQueue {
  public:
    // Joins the mesh; null with a problem. A notice that comes while it joins may be lost, so the
    // topics must be looked at once after the call.
    static std::unique_ptr<NoticeQueue> join(Problem &problem);
    NoticeQueue(const NoticeQueue &) = delete;
    NoticeQueue &operator=(const NoticeQueue &) = delete;
    ~NoticeQueue();

    // Readable while there is something to take.
    int fd() const
    {
        return marks_.fd();
    }
    // Gives the buckets of all notices since the last call.
    Buckets take()
    {
        return marks_.take();
    }

  private:
    NoticeQueue() = default;

    NoticeMarks marks_;
    kp_t *handle_ = nullptr;
};

} // namespace kp::tool
