#include "web/client.h"

#include "testing/readable.h"

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kptest {

Client::Client(uint16_t port, int receive_bytes)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    if (receive_bytes > 0)
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

Client::Client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    (void)connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

Client::~Client()
{
    (void)close(fd_);
}

bool Client::send(const std::string &text) const
{
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

bool Client::ask(const std::string &target, const std::string &headers) const
{
    return send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
}

bool Client::receive()
{
    char room[16384];
    if (has_ended_ || !is_readable(fd_, std::chrono::milliseconds(50)))
        return false;
    const ssize_t got = recv(fd_, room, sizeof room, MSG_DONTWAIT);
    has_ended_ = got <= 0;
    if (got > 0)
        received_.append(room, static_cast<std::size_t>(got));
    return got > 0;
}

bool Client::wait_for(const std::string &text)
{
    return wait_until([&] {
               (void)receive();
               return received_.find(text) != std::string::npos || has_ended_;
           }) &&
           received_.find(text) != std::string::npos;
}

bool Client::wait_for_end()
{
    return wait_until([&] {
        while (receive()) {
        }
        return has_ended_;
    });
}

} // namespace kptest
