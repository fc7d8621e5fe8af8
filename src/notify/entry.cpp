#include "notify/endpoint.h"

#include "support/lock.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace kp {

namespace {

Claim &claim_of(kp_notify_t &endpoint, Connector connector)
{
    return endpoint.claims[kSlotCount + static_cast<std::size_t>(connector)];
}

bool concerns(const Claim &claim, const char *name, const Entry &entry)
{
    return claim.is_taken && entry.presence == Presence::present && is_same(claim.entry, entry) &&
           std::strcmp(claim.name.data(), name) == 0;
}

} // namespace

Entry look_at(const char *path)
{
    struct stat status;
    if (lstat(path, &status) != 0) {
        Entry entry{};
        entry.presence = errno == ENOENT ? Presence::absent : Presence::unknown;
        return entry;
    }
    return {Presence::present, status.st_dev,  status.st_ino,
            status.st_ctim,    status.st_mode, status.st_uid};
}

bool is_same(const Entry &one, const Entry &other)
{
    return one.presence == other.presence && one.device == other.device &&
           one.inode == other.inode && one.changed.tv_sec == other.changed.tv_sec &&
           one.changed.tv_nsec == other.changed.tv_nsec;
}

bool may_follow(const Entry &entry)
{
    return !S_ISLNK(entry.mode) || entry.owner == 0 || entry.owner == geteuid();
}

Claimed claim_entry(kp_notify_t &endpoint, Connector connector, const char *name,
                    const Entry &entry)
{
    const MutexLock lock(endpoint.claims_mutex);
    for (std::size_t place = 0; place < endpoint.claims.size(); ++place)
        if (concerns(endpoint.claims[place], name, entry))
            return place < kSlotCount ? Claimed::connected : Claimed::being_connected;
    Claim &claim = claim_of(endpoint, connector);
    claim.is_taken = true;
    claim.entry = entry;
    (void)format_text(claim.name, "%s", name);
    return Claimed::now;
}

void drop_claim(kp_notify_t &endpoint, Connector connector)
{
    const MutexLock lock(endpoint.claims_mutex);
    claim_of(endpoint, connector).is_taken = false;
}

std::size_t settle_claim(kp_notify_t &endpoint, Connector connector, int fd)
{
    const MutexLock lock(endpoint.claims_mutex);
    Claim &claim = claim_of(endpoint, connector);
    const std::size_t slot = take_slot(endpoint.server_fds, fd);
    if (slot != kSlotCount)
        endpoint.claims[slot] = claim;
    claim.is_taken = false;
    return slot;
}

int free_server_slot(kp_notify_t &endpoint, std::size_t slot)
{
    const MutexLock lock(endpoint.claims_mutex);
    endpoint.claims[slot].is_taken = false;
    return exchange(endpoint.server_fds[slot], kFreeSlot);
}

} // namespace kp
