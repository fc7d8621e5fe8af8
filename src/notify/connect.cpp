// Connecting to a peer. A file of the directory that refuses three tries is the left-over of a
// killed endpoint, or no socket at all, and is removed; one that cannot be reached for any other
// reason is left alone, since somebody may live behind it.
#include "notify/endpoint.h"

#include "support/clock.h"
#include "support/fork.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace kp {

namespace {

// A peer that is made anew again and again must not delay an opening for ever. The directory watch
// connects to its later sockets.
constexpr int kMostTries = 4 * kTries;

// A connect waits while the peer's backlog is full, which is for ever when the peer is stopped.
constexpr timeval kConnectTimeout{1, 0};

// Ends at once when the endpoint is closed meanwhile.
void pause_before_next_try(const kp_notify_t &endpoint)
{
    const int64_t end = monotonic_ms() + kPauseMs;
    pollfd cancel{};
    cancel.fd = endpoint.cancel_fds[kReadEnd];
    cancel.events = POLLIN;
    for (int64_t left = kPauseMs; left > 0 && !is_stopping(endpoint); left = end - monotonic_ms())
        (void)poll(&cancel, 1, static_cast<int>(left));
}

// Waits a moment for the owner of a file that was just made. If the scan tried the file too early,
// it would have to wait for a whole pause. The directory watch has waited already.
void let_it_listen(const Entry &entry)
{
    timespec now{};
    timespec tick{}; // by so much a change time can be older than its change
    (void)clock_gettime(CLOCK_REALTIME, &now);
    (void)clock_getres(CLOCK_REALTIME_COARSE, &tick);
    const int64_t age_ns =
        (now.tv_sec - entry.changed.tv_sec) * 1'000'000'000 + now.tv_nsec - entry.changed.tv_nsec;
    if (age_ns >= 0 && age_ns < tick.tv_nsec + int64_t{kListenDelayUs} * 1000)
        (void)usleep(kListenDelayUs);
}

bool connect_at(const OwnFd &fd, const Attempt &attempt, const Entry &entry)
{
    if (!may_follow(entry)) {
        errno = ELOOP;
        return false;
    }
    return connect(fd.get(), reinterpret_cast<const sockaddr *>(&attempt.address),
                   sizeof(attempt.address)) == 0;
}

// Counts a failed try. It counts only if the same file was there before and after it. With another
// file than the one that was tried before, the count begins again.
void note_failure(Attempt &attempt, const Entry &before)
{
    const Entry after = look_at(attempt.address.sun_path);
    const bool is_certain = is_same(before, after);
    if (!is_certain || !is_same(before, attempt.tried))
        attempt.failures = 0;
    attempt.failures += is_certain ? 1 : 0;
    attempt.tried = after;
}

// Whether nobody can be behind the file that was tried.
bool is_left_over(const Attempt &attempt)
{
    if (attempt.tried.presence == Presence::unknown)
        return false;
    if (attempt.tried.presence == Presence::absent || !S_ISSOCK(attempt.tried.mode))
        return true;
    return attempt.error == ECONNREFUSED || attempt.error == EPROTOTYPE;
}

} // namespace

Attempt begin_attempt(const char *name, LogSite site)
{
    Attempt attempt{};
    (void)format_text(attempt.name, "%s", name);
    attempt.address = socket_address(name, site);
    return attempt;
}

Tried try_once(kp_notify_t &endpoint, Connector connector, Attempt &attempt, const OwnFd &fd)
{
    const Entry before = look_at(attempt.address.sun_path);
    if (before.presence == Presence::absent) {
        attempt.error = ENOENT;
        note_failure(attempt, before);
        return Tried::absent;
    }
    switch (claim_entry(endpoint, connector, attempt.name.data(), before)) {
    case Claimed::connected:
        return Tried::known;
    case Claimed::being_connected:
        return Tried::being_connected;
    case Claimed::now:
        break;
    }
    if (connector == Connector::opening)
        let_it_listen(before);
    if (connect_at(fd, attempt, before))
        return Tried::connected;
    attempt.error = errno;
    drop_claim(endpoint, connector);
    note_failure(attempt, before);
    return Tried::failed;
}

void take_in(kp_notify_t &endpoint, Connector connector, OwnFd fd, LogSite site)
{
    if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
        const int cause = errno;
        drop_claim(endpoint, connector);
        KP_LOG_AT(KP_LEVEL_ERROR, site, "NONBLOCK(): %s\n", std::strerror(cause));
        return;
    }
    if (settle_claim(endpoint, connector, fd.get()) == kSlotCount) {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "Cannot find free socket in server_fds poll\n");
        return;
    }
    (void)fd.release(); // the slot's now
    const uint8_t byte = 0;
    if (endpoint.new_server_fds[kWriteEnd] != -1 &&
        write(endpoint.new_server_fds[kWriteEnd], &byte, sizeof(byte)) != sizeof(byte))
        KP_LOG_AT(KP_LEVEL_WARN, site, "write new server fd failed\n");
}

bool is_busy(const Attempt &attempt)
{
    return attempt.error == EAGAIN || attempt.error == EINTR;
}

void report_busy(const Attempt &attempt, LogSite site)
{
    KP_LOG_AT(KP_LEVEL_ERROR, site, "connect to %s timed out\n", attempt.address.sun_path);
}

bool give_up(const Attempt &attempt, LogSite site)
{
    const char *path = attempt.address.sun_path;
    if (!is_same(look_at(path), attempt.tried))
        return false;
    if (is_left_over(attempt)) {
        if (attempt.tried.presence == Presence::present)
            (void)unlink(path); // nothing may come between the look and this
        KP_LOG_AT(KP_LEVEL_ERROR, site, "connect to %s failed, remove it\n", path);
    } else if (is_busy(attempt)) {
        report_busy(attempt, site);
    } else {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "connect to %s failed: %s\n", path,
                  std::strerror(attempt.error));
    }
    return true;
}

void connect_to(kp_notify_t &endpoint, const char *name)
{
    OwnFd fd = own_fd([&] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    if (!fd) {
        KP_ERROR("opening socket: %s\n", std::strerror(errno));
        return;
    }
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kConnectTimeout, sizeof(kConnectTimeout));
    const LogSite site = LogSite::current();
    Attempt attempt = begin_attempt(name, site);
    for (int tries = 0; tries < kMostTries && !is_stopping(endpoint); ++tries) {
        const Tried tried = try_once(endpoint, Connector::opening, attempt, fd);
        if (tried == Tried::connected) {
            take_in(endpoint, Connector::opening, std::move(fd), site);
            return;
        }
        if (tried != Tried::failed && tried != Tried::absent)
            return;
        pause_before_next_try(endpoint);
        if (is_stopping(endpoint))
            return;
        if (attempt.failures >= kTries && give_up(attempt, site))
            return;
    }
}

} // namespace kp
