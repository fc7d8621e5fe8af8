// Ten changes with sd-event.
#include "follow.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

namespace {

int on_readable(sd_event_source *source, int, uint32_t, void *data)
{
    if (static_cast<Follower *>(data)->take_changes())
        return 0;
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

} // namespace

int main()
{
    Follower follower;
    sd_event *loop = nullptr;
    if (sd_event_new(&loop) < 0)
        return 1;
    sd_event_add_io(loop, nullptr, follower.node.fd(), EPOLLIN, on_readable, &follower);
    const int status = sd_event_loop(loop);
    sd_event_unref(loop);
    return status;
}
