// Sending one message to every peer, on the connections that the peers made to this endpoint.
#include "notify/endpoint.h"

#include "support/cancellation.h"

#include <cerrno>
#include <sys/socket.h>

namespace kp {

namespace {

// Counts a thread in while it may use a slot's descriptor: as long as the count is not zero, the
// accept thread does not close the descriptor that it has taken out of the slot. A thread that was
// cancelled meanwhile would never be counted out.
class SlotUse {
  public:
    explicit SlotUse(uint32_t &senders) : senders_(senders)
    {
        add_ordered(senders_, 1);
    }
    SlotUse(const SlotUse &) = delete;
    SlotUse &operator=(const SlotUse &) = delete;
    ~SlotUse()
    {
        subtract_ordered(senders_, 1);
    }

  private:
    const NoCancellation scope_; // first, so that it ends last
    uint32_t &senders_;
};

// Sends to the peer in a slot, if one is there still. Not inlined: the loop over the slots, of
// which most are free, needs nothing of its frame.
[[gnu::noinline]] void send_to(kp_notify_t &endpoint, int slot, const void *buf, uint32_t len)
{
    const SlotUse use(endpoint.senders[slot]);
    const int fd = load_ordered(endpoint.client_fds[slot]);
    if (fd == kFreeSlot || send(fd, buf, len, MSG_NOSIGNAL) != -1)
        return;
    const int cause = errno;
    KP_LOG_AT(KP_LEVEL_ERROR, LogSite::current("kp_notify_send"),
              "send failed: %d (%d), errno=%d\n", slot, load_relaxed(endpoint.client_fds[slot]),
              cause);
}

} // namespace

} // namespace kp

using namespace kp;

int32_t kp_notify_send(kp_notify_t *endpoint, const void *buf, uint32_t len)
{
    for (int slot = kFirstPeerSlot; slot < kSlotCount; ++slot) {
        if (load_relaxed(endpoint->client_fds[slot]) == kFreeSlot)
            continue;
        send_to(*endpoint, slot, buf, len);
    }
    return 0;
}
