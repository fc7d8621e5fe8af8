#include "net/listeners.h"

#include "common/system/socket_probe.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace kp::web {

namespace {

constexpr int kBacklog = 64;
constexpr int kFirstInherited = 3; // the service manager's rule
// So much waits in the kernel for a client that does not read. More would only be stale, since the
// newest value counts. Accepted connections inherit it.
constexpr int kSendBytes = 64 * 1024;

union AnyAddress {
    sockaddr plain;
    sockaddr_in four;
    sockaddr_in6 six;
    sockaddr_un local;
};

socklen_t fill(AnyAddress &place, const Address &address)
{
    std::memset(&place, 0, sizeof place);
    if (address.host.empty()) {
        place.local.sun_family = AF_UNIX;
        std::memcpy(place.local.sun_path, address.path.c_str(), address.path.size() + 1);
        return sizeof place.local;
    }
    if (inet_pton(AF_INET, address.host.c_str(), &place.four.sin_addr) == 1) {
        place.four.sin_family = AF_INET;
        place.four.sin_port = htons(address.port);
        return sizeof place.four;
    }
    (void)inet_pton(AF_INET6, address.host.c_str(), &place.six.sin6_addr);
    place.six.sin6_family = AF_INET6;
    place.six.sin6_port = htons(address.port);
    return sizeof place.six;
}

// Removes the file of a socket that refuses connections, which proves that nobody listens on it.
void remove_dead_socket(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode))
        return;
    if (tool::probe_socket(path) == ECONNREFUSED)
        (void)unlink(path.c_str());
}

// The owner and the group may connect; the group is that of the reverse proxy.
int bind_socket(const UniqueFd &fd, const AnyAddress &place, socklen_t length)
{
    const mode_t usual = umask(0117);
    const int result = bind(fd.get(), &place.plain, length);
    (void)umask(usual);
    return result;
}

void set_option(const UniqueFd &fd, int name, int value)
{
    (void)setsockopt(fd.get(), SOL_SOCKET, name, &value, sizeof value);
}

} // namespace

Listeners::~Listeners()
{
    for (const std::string &file : files_)
        (void)unlink(file.c_str());
}

tool::Result<Listeners> Listeners::open(const std::vector<Address> &addresses)
{
    Listeners listeners;
    for (const Address &address : addresses)
        if (const std::string problem = listeners.add(address); !problem.empty())
            return tool::Result<Listeners>::failed(address.text() + ": " + problem);
    return tool::Result<Listeners>::of(std::move(listeners));
}

std::string Listeners::add(const Address &address)
{
    AnyAddress place;
    const socklen_t length = fill(place, address);
    UniqueFd fd(socket(place.plain.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return std::strerror(errno);
    if (address.host.empty())
        remove_dead_socket(address.path);
    set_option(fd, SO_REUSEADDR, 1);
    set_option(fd, SO_SNDBUF, kSendBytes);
    if (bind_socket(fd, place, length) != 0 || listen(fd.get(), kBacklog) != 0)
        return std::strerror(errno);
    fds_.push_back(std::move(fd));
    if (address.host.empty())
        files_.push_back(address.path);
    return {};
}

Listeners Listeners::inherited()
{
    Listeners listeners;
    const char *pid = std::getenv("LISTEN_PID");
    const char *count = std::getenv("LISTEN_FDS");
    if (!pid || !count || std::to_string(getpid()) != pid)
        return listeners;
    for (int fd = kFirstInherited; fd < kFirstInherited + std::atoi(count); ++fd) {
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
        (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        listeners.fds_.emplace_back(fd);
        set_option(listeners.fds_.back(), SO_SNDBUF, kSendBytes);
    }
    return listeners;
}

Connection Listeners::accept(const UniqueFd &listener)
{
    Connection connection;
    connection.length = sizeof connection.address;
    connection.fd.reset(accept4(listener.get(), reinterpret_cast<sockaddr *>(&connection.address),
                                &connection.length, SOCK_CLOEXEC | SOCK_NONBLOCK));
    return connection;
}

std::vector<std::string> Listeners::names() const
{
    std::vector<std::string> names;
    for (const UniqueFd &fd : fds_) {
        AnyAddress place{};
        socklen_t length = sizeof place;
        Address address;
        char text[INET6_ADDRSTRLEN] = "";
        if (getsockname(fd.get(), &place.plain, &length) != 0)
            continue;
        if (place.plain.sa_family == AF_UNIX)
            address.path = place.local.sun_path;
        else if (place.plain.sa_family == AF_INET)
            address = {inet_ntop(AF_INET, &place.four.sin_addr, text, sizeof text),
                       ntohs(place.four.sin_port), ""};
        else
            address = {inet_ntop(AF_INET6, &place.six.sin6_addr, text, sizeof text),
                       ntohs(place.six.sin6_port), ""};
        names.push_back(address.text());
    }
    return names;
}

} // namespace kp::web
