#include "common/system/socket_probe.h"

#include "layout/unique_fd.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace kp::tool {

int probe_socket(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return errno;
    const auto *plain = reinterpret_cast<const sockaddr *>(&address);
    return connect(fd.get(), plain, sizeof address) == 0 ? 0 : errno;
}

} // namespace kp::tool
