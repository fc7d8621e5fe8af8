// The limit: a connected Unix stream socket to each receiver, a change notice of 129 bytes on it,
// epoll_wait() and either one recv() on the other side, or two as the library's format asks for:
// the type byte first, then what that type brings.
#pragma once

#include "notices/channels/channel.h"

namespace bench {

std::unique_ptr<Channel> make_socket_channel(bool two_receives);

} // namespace bench
