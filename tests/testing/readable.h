// Waits for a descriptor, for tests that hold sockets, pipes and descriptors of the library.
#pragma once

#include <chrono>
#include <poll.h>

namespace kptest {

// Says whether something can be read from a descriptor, or its other side closes, within a time.
inline bool is_readable(int fd, std::chrono::milliseconds deadline = std::chrono::milliseconds(0))
{
    pollfd wanted{fd, POLLIN, 0};
    return poll(&wanted, 1, static_cast<int>(deadline.count())) == 1 &&
           (wanted.revents & (POLLIN | POLLHUP)) != 0;
}

} // namespace kptest
