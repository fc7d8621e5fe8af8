#include "common/device/unix_sockets.h"

#include "common/clock.h"
#include "layout/unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace kp::tool {

namespace {

struct Request {
    nlmsghdr header;
    unix_diag_req body;
};

bool send_request(const UniqueFd &netlink)
{
    Request request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_UNIX;
    request.body.udiag_states = (1U << TCP_ESTABLISHED) | (1U << TCP_LISTEN) | (1U << TCP_CLOSE);
    request.body.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER | UDIAG_SHOW_RQLEN;
    return send(netlink.get(), &request, sizeof(request), 0) == sizeof(request);
}

// The kernel writes device numbers with 20 bits for the minor part.
dev_t device_of(uint32_t kernel_number)
{
    return makedev(kernel_number >> 20, kernel_number & 0xFFFFF);
}

// The macros that walk netlink messages take no pointers to const.
void take_attribute(rtattr &attribute, UnixSocket &socket)
{
    const void *data = RTA_DATA(&attribute);
    const std::size_t size = RTA_PAYLOAD(&attribute);
    if (attribute.rta_type == UNIX_DIAG_NAME) {
        const auto *text = static_cast<const char *>(data);
        socket.path.assign(text, strnlen(text, size));
    } else if (attribute.rta_type == UNIX_DIAG_VFS && size >= sizeof(unix_diag_vfs)) {
        unix_diag_vfs file;
        std::memcpy(&file, data, sizeof(file));
        socket.file_device = device_of(file.udiag_vfs_dev);
        socket.file_inode = file.udiag_vfs_ino;
    } else if (attribute.rta_type == UNIX_DIAG_PEER && size >= sizeof(uint32_t)) {
        uint32_t peer;
        std::memcpy(&peer, data, sizeof(peer));
        socket.peer = peer;
    } else if (attribute.rta_type == UNIX_DIAG_RQLEN && size >= sizeof(unix_diag_rqlen)) {
        unix_diag_rqlen queues;
        std::memcpy(&queues, data, sizeof(queues));
        socket.receive_queue = queues.udiag_rqueue;
        socket.queue_limit = queues.udiag_wqueue;
    }
}

UnixSocket socket_of(nlmsghdr &header)
{
    auto *message = static_cast<unix_diag_msg *>(NLMSG_DATA(&header));
    UnixSocket socket;
    socket.inode = message->udiag_ino;
    socket.state = message->udiag_state == TCP_LISTEN  ? UnixSocket::State::listening
                   : message->udiag_state == TCP_CLOSE ? UnixSocket::State::bound
                                                       : UnixSocket::State::connected;
    auto left = static_cast<int>(header.nlmsg_len - NLMSG_LENGTH(sizeof(*message)));
    auto *attribute = reinterpret_cast<rtattr *>(message + 1);
    while (left >= static_cast<int>(sizeof(rtattr)) && attribute->rta_len >= sizeof(rtattr) &&
           attribute->rta_len <= left) {
        take_attribute(*attribute, socket);
        const auto step = static_cast<int>(RTA_ALIGN(attribute->rta_len));
        left -= step;
        attribute = reinterpret_cast<rtattr *>(reinterpret_cast<char *>(attribute) + step);
    }
    return socket;
}

enum class Progress { more, done, failed };

Progress take_messages(char *buffer, std::size_t size, std::vector<UnixSocket> &sockets)
{
    auto left = static_cast<unsigned>(size);
    auto *header = reinterpret_cast<nlmsghdr *>(buffer);
    for (; NLMSG_OK(header, left); header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type == NLMSG_DONE)
            return Progress::done;
        if (header->nlmsg_type == NLMSG_ERROR)
            return Progress::failed;
        if (header->nlmsg_type == SOCK_DIAG_BY_FAMILY)
            sockets.push_back(socket_of(*header));
    }
    return Progress::more;
}

bool ask_kernel(std::vector<UnixSocket> &sockets)
{
    const UniqueFd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!netlink || !send_request(netlink))
        return false;
    alignas(nlmsghdr) std::array<char, 32768> buffer;
    for (;;) {
        const ssize_t size = recv(netlink.get(), buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return false;
        const auto progress = take_messages(buffer.data(), static_cast<std::size_t>(size), sockets);
        if (progress != Progress::more)
            return progress == Progress::done;
    }
}

// "Num RefCount Protocol Flags Type St Inode Path"; a listening socket has flag 0x10000, and one
// that is not connected the state 1.
bool read_proc(std::vector<UnixSocket> &sockets)
{
    std::ifstream file("/proc/net/unix");
    std::string line;
    if (!std::getline(file, line))
        return false;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string number, references, protocol, flags, type, state;
        UnixSocket socket;
        fields >> number >> references >> protocol >> flags >> type >> state >> socket.inode;
        std::getline(fields >> std::ws, socket.path);
        socket.state = flags == "00010000" ? UnixSocket::State::listening
                       : state == "01"     ? UnixSocket::State::bound
                                           : UnixSocket::State::connected;
        if (socket.inode != 0) // one that is not accepted yet has none
            sockets.push_back(std::move(socket));
    }
    return true;
}

} // namespace

UnixSockets list_unix_sockets()
{
    UnixSockets found;
    found.has_queues = ask_kernel(found.sockets);
    found.is_known = found.has_queues;
    if (!found.has_queues) {
        found.sockets.clear();
        found.is_known = read_proc(found.sockets);
    }
    return found;
}

bool EndpointFile::is_bound_by(const UnixSocket &socket) const
{
    if (socket.file_inode != 0)
        return socket.file_inode == inode && socket.file_device == device;
    return socket.path == endpoint_path(name);
}

std::vector<EndpointFile> list_endpoint_files(int *error)
{
    std::vector<EndpointFile> files;
    const UniqueDir directory(opendir(kEndpointRoot));
    if (error)
        *error = directory ? 0 : errno;
    if (!directory)
        return files;
    while (const dirent *entry = directory.next()) {
        struct stat status;
        const std::string path = endpoint_path(entry->d_name);
        if (lstat(path.c_str(), &status) == 0)
            files.push_back({entry->d_name, status.st_dev, status.st_ino, status.st_uid,
                             status.st_gid, status.st_mode, S_ISSOCK(status.st_mode),
                             to_us(status.st_mtim)});
        else if (errno == EACCES && error) // it may be listed but not searched
            *error = errno;
    }
    std::sort(files.begin(), files.end(),
              [](const EndpointFile &a, const EndpointFile &b) { return a.name < b.name; });
    return files;
}

} // namespace kp::tool
