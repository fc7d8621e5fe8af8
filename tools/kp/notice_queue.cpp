#include "notice_queue.h"

#include "mesh.h"
#include "unix_sockets.h"

#include <cerrno>
#include <cstddef>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// Of the one queue; apart from it, since notices can arrive before the handle is known to anybody.
std::mutex gathered_mutex;
kp_write_info gathered{};
int gathered_event = -1;

int gather(kp_t *, const kp_write_info *notice, void *)
{
    const std::lock_guard lock(gathered_mutex);
    for (std::size_t index = 0; index < sizeof(gathered.bitmap); ++index)
        gathered.bitmap[index] = gathered.bitmap[index] | notice->bitmap[index];
    const uint64_t one = 1;
    (void)!write(gathered_event, &one, sizeof(one));
    return 0;
}

} // namespace

std::unique_ptr<NoticeQueue> NoticeQueue::join(Problem &problem)
{
    std::unique_ptr<NoticeQueue> queue(new NoticeQueue(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    gathered_event = queue->fd();
    queue->handle_ = kp_new(own_endpoint_name("watch").c_str(), gather);
    if (queue->handle_)
        return queue;
    problem = system_problem(std::string(kProvidersRoot) + ": the mesh cannot be joined", errno);
    problem.code = problem.code == kPermission ? kPermission : kLimit;
    return nullptr;
}

NoticeQueue::~NoticeQueue()
{
    if (handle_)
        (void)kp_destroy(handle_);
}

kp_write_info NoticeQueue::take()
{
    const std::lock_guard lock(gathered_mutex);
    uint64_t count = 0;
    (void)!read(event_.get(), &count, sizeof(count));
    return std::exchange(gathered, {});
}

bool has_bucket(const kp_write_info &notice, uint32_t bucket)
{
    return notice.bitmap[bucket >> 3] >> (bucket & 7) & 1;
}

} // namespace kp::tool
