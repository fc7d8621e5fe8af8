#include "testing/unix_socket.h"

#include "testing/readable.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace kptest {

namespace {

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof(address.sun_path));
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

int new_socket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

UnixSocket bound(const std::string &path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    UnixSocket socket(new_socket());
    const sockaddr_un address = address_of(path);
    EXPECT_EQ(bind(socket.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0)
        << path << ": " << std::strerror(errno);
    return socket;
}

} // namespace

UnixSocket::UnixSocket(UnixSocket &&other) noexcept : fd_(std::exchange(other.fd_, -1))
{
}

UnixSocket &UnixSocket::operator=(UnixSocket &&other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

UnixSocket::~UnixSocket()
{
    close();
}

UnixSocket UnixSocket::listening(const std::string &path, int backlog)
{
    UnixSocket socket = bound(path);
    EXPECT_EQ(listen(socket.fd_, backlog), 0) << std::strerror(errno);
    return socket;
}

UnixSocket UnixSocket::connected(const std::string &path)
{
    UnixSocket socket(new_socket());
    const sockaddr_un address = address_of(path);
    if (connect(socket.fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        socket.close();
    return socket;
}

void UnixSocket::leave_dead_file(const std::string &path)
{
    (void)bound(path);
}

UnixSocket UnixSocket::accept(std::chrono::milliseconds deadline) const
{
    if (!is_readable(deadline))
        return {};
    return UnixSocket(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

bool UnixSocket::send(const std::string &bytes) const
{
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(bytes.size());
}

std::string UnixSocket::recv(std::size_t count, std::chrono::milliseconds deadline) const
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::string bytes(count, '\0');
    std::size_t length = 0;
    while (length < count) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (!is_readable(std::max(left, std::chrono::milliseconds(0))))
            break;
        const ssize_t got = ::recv(fd_, bytes.data() + length, count - length, MSG_DONTWAIT);
        if (got <= 0)
            break;
        length += static_cast<std::size_t>(got);
    }
    bytes.resize(length);
    return bytes;
}

bool UnixSocket::is_closed_by_peer(std::chrono::milliseconds deadline) const
{
    char byte;
    return is_readable(deadline) && ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

bool UnixSocket::is_readable(std::chrono::milliseconds deadline) const
{
    return kptest::is_readable(fd_, deadline);
}

void UnixSocket::close()
{
    if (fd_ >= 0)
        (void)::close(std::exchange(fd_, -1));
}

} // namespace kptest
