#include "providers/segment_holders.h"

#include "common/system/processes.h"
#include "layout/segment.h"

#include <array>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kp::mqtt {

const std::vector<Holder> &HandleCensus::of(ino_t file) const
{
    static const std::vector<Holder> nobody;
    const auto found = of_file.find(file);
    return found == of_file.end() ? nobody : found->second;
}

SegmentHolders::SegmentHolders(bool trust_visible)
    : sight_(trust_visible                                                       ? Sight::trusted
             : tool::sees_all_processes() && tool::may_look_into_all_processes() ? Sight::full
                                                                                 : Sight::partial),
      epoll_(epoll_create1(EPOLL_CLOEXEC))
{
}

HandleCensus SegmentHolders::take()
{
    HandleCensus census;
    struct stat root {};
    if (stat(kStoreRoot, &root) != 0)
        return census;
    const tool::Mappers mappers = tool::find_mappers(root.st_dev);
    if (sight_ == Sight::trusted || mappers.unreadable.empty())
        census.sight = sight_;
    std::map<pid_t, uint64_t> started;
    for (const auto &[file, list] : mappers.of_file) {
        for (const tool::Mapper &mapper : list) {
            if (mapper.writable == 0)
                continue; // a reader that the library does not count
            const auto [known, is_new] = started.try_emplace(mapper.pid, 0);
            if (is_new)
                known->second = tool::start_of(mapper.pid);
            census.of_file[file.inode].push_back({{mapper.pid, known->second}, mapper.writable});
        }
    }
    std::erase_if(watched_, [&started](const auto &item) {
        const auto found = started.find(item.first);
        return found == started.end() || found->second != item.second.started;
    });
    for (const auto &[pid, start] : started)
        watch({pid, start});
    return census;
}

// A process that cannot be watched is noticed at the next look for another reason.
void SegmentHolders::watch(const ProcessId &process)
{
    if (process.pid == getpid() || watched_.contains(process.pid))
        return;
    UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, process.pid, 0)));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = process.pid;
    if (fd && epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd.get(), &event) == 0)
        watched_.emplace(process.pid, Watched{process.started, std::move(fd)});
}

bool SegmentHolders::some_ended()
{
    std::array<epoll_event, 16> room;
    bool ended = false;
    int count = 0;
    while ((count = epoll_wait(epoll_.get(), room.data(), room.size(), 0)) > 0) {
        ended = true;
        for (int at = 0; at < count; ++at)
            watched_.erase(room[static_cast<size_t>(at)].data.fd);
    }
    return ended;
}

} // namespace kp::mqtt
