// Gathers the change notices of all peers through a handle of the library.
#pragma once

#include "common/device/notice_marks.h"
#include "common/problem.h"
#include "kp.h"

#include <cstdint>
#include <future>
#include <memory>
#include <string>

namespace kp::tool {

class NoticeQueue {
  public:
    // Joins the mesh; null with a problem. A dead socket holds that up for seconds, and so does a
    // peer that is stopped. Then, or at the monotonic time `end_us`, or when a signal asks for the
    // end, it returns and joining goes on behind it. What is written meanwhile shows to who looks.
    static std::unique_ptr<NoticeQueue> join(uint64_t end_us, Problem &problem);
    NoticeQueue(const NoticeQueue &) = delete;
    NoticeQueue &operator=(const NoticeQueue &) = delete;
    // Leaves no socket. To be called when the program ends: while it still joins, its thread goes
    // on until then.
    ~NoticeQueue();

    // Readable while there is something to take.
    int fd() const
    {
        return marks_->fd();
    }
    // Gives the buckets of all notices since the last call; all buckets when it has just joined. A
    // mesh that could not be joined after all is told once.
    Buckets take();

  private:
    struct Joined {
        kp_t *handle;
        int error;
    };

    explicit NoticeQueue(std::string name);

    static Joined join_mesh(const std::string &name, NoticeMarks &marks);
    static Problem problem_of(int error);
    bool has_joined_within(uint64_t time_us);

    const std::string name_;
    const std::shared_ptr<NoticeMarks> marks_ = std::make_shared<NoticeMarks>();
    std::future<Joined> joining_; // of no state once its result is here
    kp_t *handle_ = nullptr;
    int error_ = 0;
};

} // namespace kp::tool
