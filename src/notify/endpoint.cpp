// What the threads of an endpoint, its opening and its closing share.
#include "notify/endpoint.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>

namespace kp {

namespace {

constexpr int kDayMs = 86'400'000;
constexpr int kUnwokenMs = 100;

} // namespace

sockaddr_un socket_address(const char *name, LogSite site)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!format_text(address.sun_path, "%s%s", kEndpointDirectory, name))
        KP_LOG_AT(KP_LEVEL_ERROR, site, "socket address name '%s' is too long\n", name);
    return address;
}

bool start_thread(pthread_t &thread, void *(*body)(void *), kp_notify_t &endpoint)
{
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t started{};
    const int error = pthread_create(&started, nullptr, body, &endpoint);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0)
        thread = started;
    else
        errno = error;
    return error == 0;
}

bool is_peer(const kp_notify_t &endpoint, const dirent &entry)
{
    return entry.d_type == DT_SOCK && std::strcmp(entry.d_name, endpoint.name) != 0;
}

std::size_t take_slot(std::span<int32_t> slots, int fd)
{
    std::size_t slot = 0;
    while (slot < slots.size() && !replace_if(slots[slot], kFreeSlot, fd))
        ++slot;
    return slot;
}

std::size_t find_slot(std::span<const int32_t> slots, int fd)
{
    std::size_t slot = 0;
    while (slot < slots.size() && load_ordered(slots[slot]) != fd)
        ++slot;
    return slot;
}

bool add_interest(const OwnFd &poll, int fd, LogSite site)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(poll.get(), EPOLL_CTL_ADD, fd, &event) == 0)
        return true;
    KP_LOG_AT(KP_LEVEL_ERROR, site, "epoll_ctl(EPOLL_CTL_ADD, %d) failed\n", fd);
    return false;
}

int watch_for_close(const kp_notify_t &endpoint, const OwnFd &poll, LogSite site)
{
    return add_interest(poll, endpoint.cancel_fds[kReadEnd], site) ? kDayMs : kUnwokenMs;
}

void remove_interest(const OwnFd &poll, int fd, LogSite site)
{
    if (epoll_ctl(poll.get(), EPOLL_CTL_DEL, fd, nullptr) != 0)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "epoll_ctl(EPOLL_CTL_DEL, %d) failed\n", fd);
}

ReadyEvents wait_for_events(const OwnFd &poll, std::span<epoll_event> room, int timeout_ms)
{
    const int count =
        epoll_wait(poll.get(), room.data(), static_cast<int>(room.size()), timeout_ms);
    if (count >= 0)
        return {Wait::ready, room.first(static_cast<std::size_t>(count))};
    return {errno == EINTR || errno == EBADF ? Wait::interrupted : Wait::failed, {}};
}

bool can_go_on(Wait wait, LogSite site)
{
    if (wait == Wait::interrupted)
        KP_LOG_AT(KP_LEVEL_WARN, site, "epoll_wait interrupted\n");
    else if (wait == Wait::failed)
        KP_LOG_AT(KP_LEVEL_WARN, site, "epoll_wait failed\n");
    return wait != Wait::failed;
}

} // namespace kp

using namespace kp;

void kp_notify_set_callback(kp_notify_t *endpoint, kp_notify_cb_t callback)
{
    if (endpoint)
        store_release(endpoint->callback, callback);
}
