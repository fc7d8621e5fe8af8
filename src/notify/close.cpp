// Closing an endpoint, also one whose opening failed half-way: what was never created is skipped.
// Connections end while the threads may still wait on them; their numbers are given back only after
// the threads are gone, so that no thread can meet another file under a number it knows.
#include "notify/endpoint.h"

#include "support/cancellation.h"
#include "support/memory.h"

#include <algorithm>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace kp {

namespace {

void close_pipe_end(int32_t &fd)
{
    if (fd == 0) // never created
        return;
    const OwnFd owner(fd);
    fd = 0;
}

void join(pthread_t thread)
{
    if (thread != 0)
        (void)pthread_join(thread, nullptr);
}

void remove_socket_file(const kp_notify_t &endpoint, LogSite site)
{
    std::array<char, sizeof(sockaddr_un::sun_path)> path{};
    const int length =
        std::snprintf(path.data(), path.size(), "%s%s", kEndpointDirectory, endpoint.name);
    if (length < 0)
        KP_LOG_AT(KP_LEVEL_WARN, site, "snprintf return negative value\n");
    else if (static_cast<std::size_t>(length) >= path.size())
        KP_LOG_AT(KP_LEVEL_ERROR, site,
                  "socket address name '%s' is too long in kp_notify_close()\n", endpoint.name);
    (void)unlink(path.data());
}

// The descriptors taken out of both tables, closed when this goes out of scope.
using Retired = std::array<OwnFd, std::size_t{2} * kSlotCount>;

// Ends the connection in a slot, frees the slot and keeps the descriptor; says whether there was
// one.
bool retire(int32_t &slot, OwnFd &keeper)
{
    const int fd = exchange(slot, kFreeSlot);
    if (fd == kFreeSlot)
        return false;
    (void)shutdown(fd, SHUT_RDWR);
    keeper.reset(fd);
    return true;
}

// Takes every connection and the listening socket, whose file is removed.
void retire_all(kp_notify_t &endpoint, Retired &retired, LogSite site)
{
    for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
        (void)retire(endpoint.server_fds[slot], retired[slot]);
        if (retire(endpoint.client_fds[slot], retired[kSlotCount + slot]) && slot == kListeningSlot)
            remove_socket_file(endpoint, site);
    }
}

} // namespace

} // namespace kp

using namespace kp;

int32_t kp_notify_close(kp_notify_t **endpoint_ref)
{
    const NoCancellation scope;
    if (!*endpoint_ref)
        return 0;
    const MallocPtr<kp_notify_t> owner(*endpoint_ref);
    kp_notify_t &endpoint = *owner;
    if (endpoint.is_parents) {
        std::free(endpoint.msg_buf);
        return 0;
    }
    const uint8_t byte = 0;
    store_release(endpoint.stop, kStopping);
    if (write(endpoint.cancel_fds[kWriteEnd], &byte, sizeof(byte)) != sizeof(byte)) {
        KP_WARN("write cancel fd failed\n");
        close_pipe_end(endpoint.cancel_fds[kWriteEnd]); // the end of the pipe wakes them as well
    }
    {
        Retired retired;
        retire_all(endpoint, retired, LogSite::current());
        join(endpoint.linkup_thread);
        join(endpoint.receive_thread);
        join(endpoint.connecting_thread);
    }
    Retired latecomers; // connections stored after the tables were emptied
    retire_all(endpoint, latecomers, LogSite::current());
    std::free(endpoint.msg_buf);
    uint8_t taken_back = 0;
    if (read(endpoint.cancel_fds[kReadEnd], &taken_back, sizeof(taken_back)) != sizeof(taken_back))
        KP_WARN("read cancel fd failed\n");
    close_pipe_end(endpoint.cancel_fds[kReadEnd]);
    close_pipe_end(endpoint.cancel_fds[kWriteEnd]);
    close_pipe_end(endpoint.new_server_fds[kReadEnd]);
    close_pipe_end(endpoint.new_server_fds[kWriteEnd]);
    const OwnFd watch(endpoint.watch_fd);
    leave_fork_link(endpoint.fork_link);
    (void)sem_destroy(&endpoint.stop_cleared);
    (void)sem_destroy(&endpoint.watch_tried);
    (void)pthread_mutex_destroy(&endpoint.claims_mutex);
    return 0;
}
