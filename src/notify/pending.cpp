#include "notify/pending.h"

#include "notify/endpoint.h"
#include "support/clock.h"
#include "support/fork.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/socket.h>

namespace kp {

namespace {

// By this time the dead files in the list have gone through their tries, and others get their
// places.
constexpr int64_t kScanPauseMs = kTries * kPauseMs;

// The scan and the directory watch log the same lines.
LogSite connect_site(int line = __builtin_LINE())
{
    return {"connect_to", line};
}

// Counts a look that could not connect although nothing is wrong with the file.
bool has_waited_long(Attempt &attempt)
{
    return ++attempt.waits == kTries;
}

// Looks at a name once; says whether it is done with. The connect does not wait, and a full backlog
// is no failure: the peer lives, and is looked at again as long as its file stands.
bool look_once(kp_notify_t &endpoint, Attempt &attempt)
{
    if (is_stopping(endpoint))
        return true;
    attempt.due_ms = monotonic_ms() + kPauseMs;
    if (attempt.failures >= kTries && give_up(attempt, connect_site()))
        return true;
    if (look_at(attempt.address.sun_path).presence == Presence::absent)
        return true;
    if (find_slot(endpoint.server_fds, kFreeSlot) == kSlotCount) {
        // The connection of a peer that is gone can keep a slot until the callback returns.
        if (!has_waited_long(attempt))
            return false;
        KP_LOG_AT(KP_LEVEL_ERROR, connect_site(), "Cannot find free socket in server_fds poll\n");
        return true;
    }
    OwnFd fd =
        own_fd([&] { return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); });
    if (!fd) {
        const int cause = errno;
        if (attempt.waits++ == 0)
            KP_LOG_AT(KP_LEVEL_ERROR, connect_site(), "opening socket: %s\n", std::strerror(cause));
        return false;
    }
    const Tried tried = try_once(endpoint, Connector::watch, attempt, fd);
    if (tried == Tried::connected)
        take_in(endpoint, Connector::watch, std::move(fd), connect_site());
    if (tried == Tried::failed && is_busy(attempt)) {
        attempt.failures = 0;
        if (has_waited_long(attempt))
            report_busy(attempt, connect_site());
    }
    return tried != Tried::failed && tried != Tried::being_connected;
}

Attempt *find_pending(Pending &pending, const char *name)
{
    for (Attempt &attempt : std::span(pending.attempts).first(pending.count))
        if (std::strcmp(attempt.name.data(), name) == 0)
            return &attempt;
    return nullptr;
}

void request_scan(Pending &pending, int64_t time_ms)
{
    pending.scan_ms = pending.is_scan_due ? std::min(pending.scan_ms, time_ms) : time_ms;
    pending.is_scan_due = true;
}

void scan(kp_notify_t &endpoint)
{
    Pending &pending = endpoint.pending;
    pending.is_scan_due = false;
    const UniqueDir dir(high_dir(opendir(kEndpointDirectory)));
    if (!dir) {
        request_scan(pending, monotonic_ms() + kPauseMs);
        return;
    }
    while (const dirent *entry = is_stopping(endpoint) ? nullptr : dir.next())
        if (is_peer(endpoint, *entry) && !find_pending(pending, entry->d_name))
            meet_name(endpoint, entry->d_name);
}

} // namespace

void meet_name(kp_notify_t &endpoint, const char *name)
{
    Pending &pending = endpoint.pending;
    if (Attempt *known = find_pending(pending, name)) {
        known->due_ms = monotonic_ms(); // another file of this name, or the same event again
        return;
    }
    Attempt attempt = begin_attempt(name, connect_site());
    if (look_once(endpoint, attempt))
        return;
    if (pending.count < pending.attempts.size())
        pending.attempts[pending.count++] = attempt;
    else
        request_scan(pending, monotonic_ms() + kScanPauseMs);
}

void scan_again(kp_notify_t &endpoint)
{
    request_scan(endpoint.pending, monotonic_ms());
}

void look_at_pending(kp_notify_t &endpoint)
{
    Pending &pending = endpoint.pending;
    for (std::size_t index = 0; index < pending.count && !is_stopping(endpoint);) {
        Attempt &attempt = pending.attempts[index];
        if (attempt.due_ms > monotonic_ms() || !look_once(endpoint, attempt))
            ++index;
        else
            attempt = pending.attempts[--pending.count];
    }
    if (pending.is_scan_due && pending.scan_ms <= monotonic_ms())
        scan(endpoint);
}

int ms_to_next_look(const kp_notify_t &endpoint)
{
    const Pending &pending = endpoint.pending;
    int64_t next_ms = pending.is_scan_due ? pending.scan_ms : INT64_MAX;
    for (const Attempt &attempt : std::span(pending.attempts).first(pending.count))
        next_ms = std::min(next_ms, attempt.due_ms);
    if (next_ms == INT64_MAX)
        return INT_MAX;
    return static_cast<int>(std::max<int64_t>(next_ms - monotonic_ms(), 0));
}

} // namespace kp
