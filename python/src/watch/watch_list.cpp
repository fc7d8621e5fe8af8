#include "watch/watch.h"

#include <sys/eventfd.h>

namespace kp::python {

void WatchList::add(const std::string &topic)
{
    Delivered &entry = topics_[topic];
    if (std::exchange(entry.waits, true))
        return;
    waiting_.push_back(topic);
    wake();
}

std::optional<std::string> WatchList::take()
{
    if (waiting_.empty())
        return std::nullopt;
    std::string topic = std::move(waiting_.front());
    waiting_.pop_front();
    owed_ -= owed_ > 0;
    topics_[topic].waits = false;
    return topic;
}

bool WatchList::is_news(const std::string &topic, uint64_t time_us, uint64_t source_time_us)
{
    Delivered &entry = topics_[topic];
    if (entry.any && entry.time_us == time_us && entry.source_time_us == source_time_us)
        return false;
    entry.any = true;
    entry.time_us = time_us;
    entry.source_time_us = source_time_us;
    return true;
}

int WatchList::wake_fd()
{
    if (!wake_fd_)
        wake_fd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    uint64_t count = 0;
    if (wake_fd_)
        (void)!read(wake_fd_.get(), &count, sizeof(count));
    return wake_fd_.get();
}

void WatchList::wake() const
{
    constexpr uint64_t kOne = 1;
    if (wake_fd_)
        (void)!write(wake_fd_.get(), &kOne, sizeof(kOne));
}

void wake_all(const std::vector<WatchList *> &watches)
{
    for (const WatchList *watch : watches)
        watch->wake();
}

} // namespace kp::python
