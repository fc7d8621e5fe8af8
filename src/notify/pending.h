// The names that the directory watch has met and is not done with yet, and the scan that finds
// names of which the watch was not told. All of it belongs to the watch thread.
#pragma once

#include "notify/connect.h"

namespace kp {

// So many names can be pending. If there are more dead files than these, by mistake or malice, the
// others are tried once, and a scan meets them again.
constexpr std::size_t kPendingCount = 256;

struct Pending {
    std::size_t count;
    bool is_scan_due;                            // the directory holds names that are not known
    int64_t scan_ms;                             // when to scan it then, by the monotonic clock
    std::array<Attempt, kPendingCount> attempts; // the first `count` of them, in no order
};

// Tries a name that has appeared, and makes it pending if it has to be tried again.
void meet_name(kp_notify_t &endpoint, const char *name);

// Asks for a scan of the directory, since events were lost.
void scan_again(kp_notify_t &endpoint);

// Goes on with every name whose time has come, and with the scan.
void look_at_pending(kp_notify_t &endpoint);

// Says in how many milliseconds the next of these is due; INT_MAX when nothing is pending.
int ms_to_next_look(const kp_notify_t &endpoint);

} // namespace kp
