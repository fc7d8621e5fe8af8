#include "link/packet_watch.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace kp::mqtt {

namespace {

// An answer to a keep-alive is a packet of which libmosquitto tells nothing. With TLS it has at
// most so many bytes.
constexpr uint64_t kSilentPacketBytes = 64;

// How much was read from a socket since it was connected. What arrives between the two questions
// counts as not read.
uint64_t bytes_read(int fd)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    int waiting = 0;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 ||
        ioctl(fd, FIONREAD, &waiting) != 0)
        return 0;
    const auto unread = static_cast<uint64_t>(waiting);
    return info.tcpi_bytes_received > unread ? info.tcpi_bytes_received - unread : 0;
}

} // namespace

bool PacketWatch::is_too_large(int socket, bool has_ended, Clock::time_point now)
{
    const uint64_t read = bytes_read(socket);
    if (has_ended) {
        begin_ = read;
        since_ = now;
        return false;
    }
    const auto keep_alives = static_cast<uint64_t>((now - since_) / keep_alive_) + 1;
    return read > begin_ + kMostToleratedBytes + keep_alives * kSilentPacketBytes;
}

} // namespace kp::mqtt
