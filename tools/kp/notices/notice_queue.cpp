#include "notices/notice_queue.h"

#include "common/device/unix_sockets.h"
#include "common/writing/notice_sender.h"

#include <cerrno>

namespace kp::tool {

namespace {

int gather(kp_t *, const kp_write_info *notice, void *marks)
{
    if (marks)
        static_cast<NoticeMarks *>(marks)->add(*notice);
    return 0;
}

} // namespace

std::unique_ptr<NoticeQueue> NoticeQueue::join(Problem &problem)
{
    std::unique_ptr<NoticeQueue> queue(new NoticeQueue);
    queue->handle_ = kp_new(own_endpoint_name("watch").c_str(), gather);
    if (queue->handle_) {
        (void)kp_set_user_data(queue->handle_, &queue->marks_);
        return queue;
    }
    problem = system_problem(std::string(kProvidersRoot) + ": the mesh cannot be joined", errno);
    problem.code = problem.code == kPermission ? kPermission : kLimit;
    return nullptr;
}

NoticeQueue::~NoticeQueue()
{
    if (handle_)
        (void)kp_destroy(handle_);
}

} // namespace kp::tool
