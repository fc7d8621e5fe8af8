#include "line.h"

#include "testing/child.h"

#include <arpa/inet.h>
#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace kptest {

namespace {

sockaddr_in loopback_at(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool write_all(int fd, const std::string &bytes)
{
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count =
            send(fd, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        written += static_cast<size_t>(count);
    }
    return true;
}

} // namespace

Line::Line(int broker_port, std::chrono::milliseconds delay)
    : broker_port_(broker_port), delay_(delay),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = loopback_at(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(listen(listener_.get(), 16), 0);
    EXPECT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

Line::~Line()
{
    stop_ = true;
    thread_.join();
}

void Line::cut()
{
    has_cut_ = false;
    is_cut_ = true;
    EXPECT_TRUE(wait_until([this] { return has_cut_.load(); }));
}

void Line::mend()
{
    is_cut_ = false;
}

void Line::accept_one()
{
    kp::UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    kp::UniqueFd broker(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback_at(broker_port_);
    if (!client || is_cut() ||
        connect(broker.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return;
    const int client_fd = client.get();
    const int broker_fd = broker.get();
    connections_.push_back({std::move(client),
                            std::move(broker),
                            {{client_fd, broker_fd, {}}, {broker_fd, client_fd, {}}}});
}

// False when one of the ends is gone.
bool Line::forward(Way &way, bool readable)
{
    const auto now = Clock::now();
    if (readable) {
        std::array<char, 4096> room;
        const ssize_t count = recv(way.from, room.data(), room.size(), 0);
        if (count <= 0)
            return false;
        way.pieces.push_back({now + delay_, {room.data(), static_cast<size_t>(count)}});
    }
    while (!way.pieces.empty() && way.pieces.front().due <= now) {
        if (!write_all(way.to, way.pieces.front().bytes))
            return false;
        way.pieces.pop_front();
    }
    return true;
}

void Line::run()
{
    while (!stop_) {
        std::vector<pollfd> room{{listener_.get(), POLLIN, 0}};
        for (const Connection &connection : connections_)
            for (const Way &way : connection.ways)
                room.push_back({way.from, POLLIN, 0});
        (void)poll(room.data(), room.size(), 2); // soon enough for what is due and for an order
        size_t at = 1;
        connections_.remove_if([&](Connection &connection) {
            bool lives = true;
            for (Way &way : connection.ways)
                lives = forward(way, room[at++].revents != 0) && lives;
            return !lives || is_cut();
        });
        if (is_cut())
            has_cut_ = true;
        if (room[0].revents != 0)
            accept_one();
    }
}

} // namespace kptest
