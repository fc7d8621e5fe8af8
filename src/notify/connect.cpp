// Connecting to a peer. A file of the directory that does not answer three tries is the left-over
// of a killed endpoint, or no socket at all, and is removed.
#include "notify/endpoint.h"
#include "support/clock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace kp {

namespace {

constexpr int kTries = 3;
constexpr int64_t kPauseMs = 1000;

// A connect waits while the peer's backlog is full, which is for ever when the peer is stopped.
constexpr timeval kConnectTimeout{1, 0};

// Pauses between two tries, so that a peer that is just starting can bind and listen; ends at once
// when the endpoint is closed meanwhile.
void pause_before_next_try(const kp_notify_t &endpoint)
{
    const int64_t end = monotonic_ms() + kPauseMs;
    pollfd cancel{};
    cancel.fd = endpoint.cancel_fds[kReadEnd];
    cancel.events = POLLIN;
    for (int64_t left = kPauseMs; left > 0 && !is_stopping(endpoint); left = end - monotonic_ms())
        (void)poll(&cancel, 1, static_cast<int>(left));
}

enum class Outcome { connected, dead, busy, stopped };

Outcome try_to_connect(const kp_notify_t &endpoint, const UniqueFd &fd, const sockaddr_un &address)
{
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kConnectTimeout, sizeof(kConnectTimeout));
    int error = 0;
    for (int tries = 0; tries < kTries; ++tries) {
        if (is_stopping(endpoint))
            return Outcome::stopped;
        if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
            return Outcome::connected;
        error = errno;
        pause_before_next_try(endpoint);
    }
    if (is_stopping(endpoint))
        return Outcome::stopped;
    // A full backlog, or a signal while waiting for room in it, is the sign of somebody who lives.
    return error == EAGAIN || error == EINTR ? Outcome::busy : Outcome::dead;
}

} // namespace

void connect_to(kp_notify_t &endpoint, const char *name)
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        KP_ERROR("opening socket: %s\n", std::strerror(errno));
        return;
    }
    const sockaddr_un address = socket_address(name);
    switch (try_to_connect(endpoint, fd, address)) {
    case Outcome::connected:
        break;
    case Outcome::stopped:
        return;
    case Outcome::busy:
        KP_ERROR("connect to %s timed out\n", address.sun_path);
        return;
    case Outcome::dead:
        KP_ERROR("connect to %s failed, remove it\n", address.sun_path);
        fd.reset();
        (void)unlink(address.sun_path);
        return;
    }
    if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
        KP_ERROR("NONBLOCK(): %s\n", std::strerror(errno));
        return;
    }
    if (take_slot(endpoint.server_fds, fd.get()) == kSlotCount) {
        KP_ERROR("Cannot find free socket in server_fds poll\n");
        return;
    }
    (void)fd.release(); // the slot's now
    const uint8_t byte = 0;
    if (endpoint.new_server_fds[kWriteEnd] != -1 &&
        write(endpoint.new_server_fds[kWriteEnd], &byte, sizeof(byte)) != sizeof(byte))
        KP_WARN("write new server fd failed\n");
}

} // namespace kp
