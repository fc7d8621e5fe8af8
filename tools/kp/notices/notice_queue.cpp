#include "notices/notice_queue.h"

#include "common/clock.h"
#include "common/device/unix_sockets.h"
#include "common/writing/notice_sender.h"
#include "running/outcome.h"
#include "running/stop.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr uint64_t kJoinPatienceUs = 500'000;  // many times what joining takes among live peers
constexpr uint64_t kResultPatienceUs = 20'000; // the result follows the wake-up at once
constexpr uint64_t kLeavePatienceUs = 20'000;  // what joining takes, when the program is to end
constexpr int kLeaveTries = 50;                // the socket may not be there yet

int gather(kp_t *, const kp_write_info *notice, void *marks)
{
    if (marks)
        static_cast<NoticeMarks *>(marks)->add(*notice);
    return 0;
}

} // namespace

NoticeQueue::NoticeQueue(std::string name) : name_(std::move(name))
{
}

// Runs on a thread of its own.
NoticeQueue::Joined NoticeQueue::join_mesh(const std::string &name, NoticeMarks &marks)
{
    const Joined joined{kp_new(name.c_str(), gather), errno};
    if (joined.handle)
        (void)kp_set_user_data(joined.handle, &marks);
    kp_write_info all{KP_MSG_WRITE_INFO, {}};
    std::memset(all.bitmap, 0xFF, sizeof(all.bitmap));
    marks.add(all);
    return joined;
}

Problem NoticeQueue::problem_of(int error)
{
    Problem problem =
        system_problem(std::string(kEndpointRoot) + ": the mesh cannot be joined", error);
    problem.kind = problem.kind == kPermission ? kPermission : kLimit;
    return problem;
}

// Says whether the result is here, whatever it is.
bool NoticeQueue::has_joined_within(uint64_t time_us)
{
    if (!joining_.valid())
        return true;
    if (joining_.wait_for(std::chrono::microseconds(time_us)) != std::future_status::ready)
        return false;
    const Joined joined = joining_.get();
    handle_ = joined.handle;
    error_ = joined.handle ? 0 : joined.error;
    return true;
}

std::unique_ptr<NoticeQueue> NoticeQueue::join(uint64_t end_us, Problem &problem)
{
    std::unique_ptr<NoticeQueue> queue(new NoticeQueue(own_endpoint_name("watch")));
    std::packaged_task<Joined()> joining(
        [name = queue->name_, marks = queue->marks_] { return join_mesh(name, *marks); });
    std::future<Joined> result = joining.get_future();
    try {
        std::thread(std::move(joining)).detach();
    } catch (const std::system_error &error) {
        problem = problem_of(error.code().value());
        return nullptr;
    }
    queue->joining_ = std::move(result);
    if (!wait_readable(queue->fd(), std::min(end_us, monotonic_us() + kJoinPatienceUs)) ||
        !queue->has_joined_within(kResultPatienceUs) || queue->handle_)
        return queue;
    problem = problem_of(queue->error_);
    return nullptr;
}

Buckets NoticeQueue::take()
{
    if (has_joined_within(0) && error_ != 0)
        complain(problem_of(std::exchange(error_, 0)).text);
    return marks_->take();
}

NoticeQueue::~NoticeQueue()
{
    const std::string path = endpoint_path(name_);
    for (int tries = 0; tries < kLeaveTries; ++tries) {
        if (has_joined_within(kLeavePatienceUs)) {
            if (handle_)
                (void)kp_destroy(handle_);
            return;
        }
        if (unlink(path.c_str()) == 0)
            return;
    }
}

} // namespace kp::tool
