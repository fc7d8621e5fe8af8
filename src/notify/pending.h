// The names that the directory watch has met and not yet done with, and the scan that makes up for
// names it was not told of. All of it belongs to the watch thread.
#pragma once

#include "notify/connect.h"

namespace kp {

// So many names can be pending. More dead files than these appear only by mistake or malice; they
// are tried once and met again by a scan.
constexpr std::size_t kPendingCount = 256;

struct Pending {
    std::size_t count;
    bool is_scan_due;                            // the directory holds names that are not known
    int64_t scan_ms;                             // when to scan it then, by the monotonic clock
    std::array<Attempt, kPendingCount> attempts; // the first `count` of them, in no order
};

// Tries a name that has appeared; makes it pending when that is not the end of it.
void meet_name(kp_notify_t &endpoint, const char *name);

// Asks for a scan of the directory, since events were lost.
void scan_again(kp_notify_t &endpoint);

// Goes on with every name whose time has come, and with the scan.
void look_at_pending(kp_notify_t &endpoint);

// How long until then, in milliseconds; INT_MAX when nothing is pending.
int ms_to_next_look(const kp_notify_t &endpoint);

} // namespace kp
