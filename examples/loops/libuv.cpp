// Ten changes with libuv.
#include "follow.h"

#include <uv.h>

namespace {

void on_readable(uv_poll_t *poll, int, int)
{
    if (!static_cast<Follower *>(poll->data)->take_changes())
        uv_poll_stop(poll); // nothing is left for the loop, so it ends
}

} // namespace

int main()
{
    Follower follower;
    uv_loop_t *loop = uv_default_loop();
    uv_poll_t poll;
    uv_poll_init(loop, &poll, follower.node.fd());
    poll.data = &follower;
    uv_poll_start(&poll, UV_READABLE, on_readable);
    uv_run(loop, UV_RUN_DEFAULT);
    uv_close(reinterpret_cast<uv_handle_t *>(&poll), nullptr);
    uv_run(loop, UV_RUN_DEFAULT);
    uv_loop_close(loop);
}
