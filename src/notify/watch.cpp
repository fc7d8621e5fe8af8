// The directory-watch thread: connects to every socket that appears beside the endpoint's own. A
// name that does not answer at once becomes pending, so that its pauses hold up no other.
#include "notify/endpoint.h"

#include "notify/pending.h"
#include "support/fork.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace kp {

namespace {

// Connects to one new name. False when it is the endpoint's own.
bool link_up(kp_notify_t &endpoint, std::span<const uint8_t> name_bytes,
             LogSite site = LogSite::current())
{
    std::array<char, kEntryNameSize> name;
    (void)format_text(name, "%.*s", static_cast<int>(name_bytes.size()),
                      reinterpret_cast<const char *>(name_bytes.data()));
    if (std::strncmp(name.data(), endpoint.name, kEntryNameSize - 1) == 0)
        return false;
    (void)usleep(kListenDelayUs);
    KP_LOG_AT(KP_LEVEL_DEBUG, site, "event %s connect to %s\n", endpoint.name, name.data());
    meet_name(endpoint, name.data());
    return true;
}

} // namespace

int handle_read_event(kp_notify_t &endpoint, int fd)
{
    const ssize_t length = read(fd, endpoint.event_buf, sizeof(endpoint.event_buf));
    if (length < 0)
        return errno == EAGAIN ? 0 : 1;
    auto rest =
        std::span<const uint8_t>(endpoint.event_buf).first(static_cast<std::size_t>(length));
    while (rest.size() >= sizeof(inotify_event) && !is_stopping(endpoint)) {
        inotify_event event;
        std::memcpy(&event, rest.data(), sizeof(event));
        rest = rest.subspan(sizeof(event));
        if (event.len > rest.size())
            return 0;
        if (event.mask & IN_Q_OVERFLOW)
            scan_again(endpoint);
        // Deliberate: the endpoint's own name ends the batch, so what follows it is not connected.
        if ((event.mask & IN_CREATE) && event.len != 0 && !link_up(endpoint, rest.first(event.len)))
            return 0;
        rest = rest.subspan(event.len);
    }
    return 0;
}

void *publisher_linkup_listener(void *arg)
{
    auto &endpoint = *static_cast<kp_notify_t *>(arg);
    OwnFd watch =
        own_fd([&] { return inotify_init1(IN_CLOEXEC); }); // a failure shows at the next call
    const int result = inotify_add_watch(watch.get(), kEndpointDirectory, IN_CREATE);
    (void)sem_post(&endpoint.watch_tried);
    if (result < 0) {
        endpoint.watch_fd = watch.release(); // stays open until the endpoint is closed
        KP_ERROR("add_watch_topic failed (%d)\n", result);
        return nullptr;
    }
    const OwnFd poll = own_fd([&] { return epoll_create1(EPOLL_CLOEXEC); });
    if (!poll) {
        KP_ERROR("epoll_create1 failed\n");
        return nullptr;
    }
    (void)add_interest(poll, watch.get());
    const int timeout_ms = watch_for_close(endpoint, poll);

    std::array<epoll_event, 2> room;
    while (!is_stopping(endpoint)) {
        const int pause_ms = std::min(timeout_ms, ms_to_next_look(endpoint));
        const auto [wait, events] = wait_for_events(poll, room, pause_ms);
        if (!can_go_on(wait))
            break;
        for (const epoll_event &event : events)
            if (event.data.fd == watch.get())
                (void)handle_read_event(endpoint, watch.get());
        look_at_pending(endpoint);
    }
    return nullptr;
}

} // namespace kp
