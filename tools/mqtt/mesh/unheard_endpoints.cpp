#include "mesh/unheard_endpoints.h"

#include "base/log.h"
#include "common/device/unix_sockets.h"
#include "common/text/text.h"
#include "kp.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace kp::mqtt {

namespace {

constexpr milliseconds kPause{3000};

struct CloseFolder {
    void operator()(DIR *folder) const
    {
        (void)closedir(folder);
    }
};

// The endpoint at the other end of a descriptor of this process, or an empty text. Another thread
// may close the descriptor meanwhile, which does no harm.
std::string peer_of(int fd)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0 ||
        address.sun_family != AF_UNIX || size <= offsetof(sockaddr_un, sun_path))
        return {};
    const std::string path(address.sun_path,
                           strnlen(address.sun_path, size - offsetof(sockaddr_un, sun_path)));
    constexpr std::string_view directory = kEndpointDirectory;
    return path.starts_with(directory) ? path.substr(directory.size()) : "";
}

std::set<std::string> heard_endpoints()
{
    std::set<std::string> heard;
    const std::unique_ptr<DIR, CloseFolder> folder(opendir("/proc/self/fd"));
    while (const dirent *entry = folder ? readdir(folder.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        int fd = -1;
        (void)std::from_chars(name.data(), name.data() + name.size(), fd);
        if (fd >= 0)
            heard.insert(peer_of(fd));
    }
    return heard;
}

} // namespace

std::set<std::string> UnheardEndpoints::find() const
{
    const tool::UnixSockets known = tool::list_unix_sockets();
    const std::set<std::string> heard = heard_endpoints();
    std::set<std::string> unheard;
    for (const tool::EndpointFile &file : tool::list_endpoint_files()) {
        const bool is_live = std::ranges::any_of(known.sockets, [&file](const auto &socket) {
            return socket.state == tool::UnixSocket::State::listening && file.is_bound_by(socket);
        });
        if (is_live && file.name != own_ && !heard.contains(file.name))
            unheard.insert(file.name);
    }
    return unheard;
}

void UnheardEndpoints::look(Clock::time_point now)
{
    if (now < next_look_)
        return;
    next_look_ = now + kPause;
    const std::set<std::string> before = std::exchange(seen_, find());
    std::erase_if(reported_, [this](const std::string &name) { return !seen_.contains(name); });
    for (const std::string &name : seen_)
        if (before.contains(name) && reported_.insert(name).second)
            log_bounded(About::reading,
                        "the endpoint " + tool::escaped(name) +
                            " tells this bridge nothing: it has its " +
                            std::to_string(KP_MAX_PEERS) +
                            " peers already, is stopped, or may not be connected to (see kp "
                            "doctor); its changes are found by the scan alone");
}

} // namespace kp::mqtt
