// Opening an endpoint: the record with its name, then the server side with the accept thread, then
// the client side with the directory watch, the scan of the directory and the receive thread.
#include "notify/endpoint.h"

#include "support/cancellation.h"
#include "support/fork.h"
#include "support/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp {

namespace {

constexpr mode_t kDirectoryMode = 0666;
constexpr int kBacklog = 32;

// Endpoints that start at the same moment make their sockets in this time, so that the scan finds
// them.
constexpr useconds_t kScanDelayUs = 10'000;

uint32_t random_number()
{
    uint32_t number = 0;
    if (getrandom(&number, sizeof(number), GRND_NONBLOCK) != sizeof(number))
        number = static_cast<uint32_t>(time(nullptr) ^ getpid());
    return number;
}

// A decimal number that names no file of the directory yet.
void make_up_name(std::span<char> name)
{
    PathBuffer path;
    for (uint32_t number = random_number();; ++number) {
        (void)format_text(name, "%u", number & INT32_MAX);
        (void)format_text(path, "%s%s", kEndpointDirectory, name.data());
        if (access(path.data(), F_OK) != 0)
            return;
    }
}

// Leaves the record of an endpoint that has come into a child of fork() alone, since all of it is
// the parent's, but for what a child may still look at: its senders find no peer.
void leave_to_parent(void *record)
{
    auto &endpoint = *static_cast<kp_notify_t *>(record);
    endpoint.is_parents = true;
    store_release(endpoint.stop, kStopping); // for a callback that forked, and returns in the child
    std::ranges::fill(endpoint.client_fds, kFreeSlot);
}

void wait_for(sem_t &posted)
{
    while (sem_wait(&posted) != 0 && errno == EINTR)
        continue;
}

// A listening socket at the endpoint's path; none after a log line under the caller's name.
OwnFd listen_at(const char *name, LogSite site = LogSite::current())
{
    OwnFd fd = own_fd([&] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    if (!fd) {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "opening socket: %s\n", std::strerror(errno));
        return fd;
    }
    const sockaddr_un address = socket_address(name, site);
    // A name with a "/" is no entry of the directory: nobody would find it, and unlink() could hit
    // a file elsewhere.
    int result = -1;
    errno = EINVAL;
    if (!std::strchr(name, '/')) {
        (void)unlink(address.sun_path); // left behind by a crashed endpoint of this name
        result = bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    }
    if (result != 0) {
        const int cause = errno;
        fd.reset();
        KP_LOG_AT(KP_LEVEL_ERROR, site, "binding name to socket: %s\n", std::strerror(cause));
        return fd;
    }
    if (listen(fd.get(), kBacklog) != 0) {
        const int cause = errno;
        fd.reset();
        KP_LOG_AT(KP_LEVEL_ERROR, site, "listen(): %s\n", std::strerror(cause));
    }
    return fd;
}

} // namespace

bool notify_server_init(kp_notify_t &endpoint)
{
    OwnFd fd = listen_at(endpoint.name);
    if (!fd)
        return false;
    store_release(endpoint.client_fds[kListeningSlot], fd.release());
    return start_thread(endpoint.connecting_thread, subscriber_connecting_listener, endpoint);
}

bool notify_client_init(kp_notify_t &endpoint)
{
    if (!own_pipe(endpoint.new_server_fds)) {
        KP_ERROR("new_server_fds pipe failed: %s\n", std::strerror(errno));
        return false;
    }
    {
        const UniqueDir dir(high_dir(opendir(kEndpointDirectory)));
        if (!dir)
            return false;
        if (!start_thread(endpoint.linkup_thread, publisher_linkup_listener, endpoint))
            return false;
        (void)usleep(kScanDelayUs);
        wait_for(endpoint.watch_tried); // a socket made between scan and watch would stay unseen
        // Not every system shows a stream what was made after its opening.
        dir.rewind();
        while (const dirent *entry = dir.next()) {
            if (!is_peer(endpoint, *entry))
                continue;
            KP_DEBUG("init %s connect to %s\n", endpoint.name, entry->d_name);
            connect_to(endpoint, entry->d_name);
        }
    }
    return start_thread(endpoint.receive_thread, message_receive_listener, endpoint);
}

namespace {

// Fills in what does not depend on the system. An endpoint without a name gets one.
void set_up(kp_notify_t &endpoint, const char *name)
{
    std::ranges::fill(endpoint.server_fds, kFreeSlot);
    std::ranges::fill(endpoint.client_fds, kFreeSlot);
    endpoint.watch_fd = -1;
    (void)sem_init(&endpoint.stop_cleared, 0, 0); // cannot fail for these arguments
    (void)sem_init(&endpoint.watch_tried, 0, 0);
    endpoint.claims_mutex = PTHREAD_MUTEX_INITIALIZER;
    if (name && *name)
        (void)format_text(endpoint.name, "%s", name);
    else
        make_up_name(endpoint.name);
}

// Starts both sides of an endpoint, or closes it and gives null after a log line under the caller's
// name.
kp_notify_t *start(kp_notify_t *endpoint, LogSite site = LogSite::current())
{
    if (!notify_server_init(*endpoint)) {
        const KeepErrno keep;
        (void)kp_notify_close(&endpoint);
        KP_LOG_AT(KP_LEVEL_ERROR, site, "init server failed\n");
        return nullptr;
    }
    const bool has_joined = notify_client_init(*endpoint);
    const KeepErrno keep;
    wait_for(endpoint->stop_cleared); // cleared later, it could undo a close
    if (!has_joined) {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "client failed\n");
        (void)kp_notify_close(&endpoint);
        return nullptr;
    }
    return endpoint;
}

} // namespace

} // namespace kp

using namespace kp;

kp_notify_t *kp_notify_init(const char *name, int32_t len, kp_notify_cb_t callback, void *cb_obj)
{
    const NoCancellation scope;
    if (len <= 0) {
        KP_WARN("notification len has to be greater than 0\n");
        return nullptr;
    }
    if (!callback) {
        KP_WARN("callback should not be NULL\n");
        return nullptr;
    }
    if (mkdir(kEndpointDirectory, kDirectoryMode) != 0 && errno != EEXIST)
        return nullptr;

    auto endpoint = make_zeroed<kp_notify_t>();
    if (!endpoint) {
        KP_ERROR("MALLOC NOTIFY(): %s\n", std::strerror(errno));
        return nullptr;
    }
    set_up(*endpoint, name);
    const auto length = static_cast<std::size_t>(len);
    MallocPtr<uint8_t> message(static_cast<uint8_t *>(std::calloc(1, message_room(length))));
    if (!message) {
        KP_ERROR("MALLOC NOTIFICATION(): %s\n", std::strerror(errno));
        return nullptr;
    }
    endpoint->msg_buf = message.release(); // Deliberate: stays allocated if the pipe below fails.
    if (!own_pipe(endpoint->cancel_fds)) {
        KP_ERROR("Pipe Failed: %s\n", std::strerror(errno));
        return nullptr;
    }
    endpoint->msg_buf_size = len;
    endpoint->callback = callback;
    endpoint->cb_obj = cb_obj;

    enter_fork_link(endpoint->fork_link, leave_to_parent, endpoint.get());
    return start(endpoint.release());
}
