// Ten changes with Asio.
#include "follow.h"

#include <asio.hpp>

namespace {

void wait_for_changes(asio::posix::stream_descriptor &changes, Follower &follower)
{
    changes.async_wait(asio::posix::stream_descriptor::wait_read, [&](std::error_code error) {
        if (!error && follower.take_changes())
            wait_for_changes(changes, follower);
    });
}

} // namespace

int main()
{
    Follower follower;
    asio::io_context loop;
    asio::posix::stream_descriptor changes(loop, follower.node.fd());
    wait_for_changes(changes, follower);
    loop.run();
    changes.release(); // the node closes its descriptor
}
