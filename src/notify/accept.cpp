// The accept thread: takes in the peers that connect to the endpoint's socket, and drops each one
// as soon as anything happens on its connection, since a peer never sends on it but only hangs up.
#include "notify/endpoint.h"

#include "support/fork.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kp {

namespace {

// Descriptors come back when some other connection is closed; asking again at once would only burn
// the processor, since the waiting peer keeps the socket ready.
constexpr useconds_t kNoDescriptorPauseUs = 10'000;

// A sender that still holds the descriptor is between its look at the slot and the end of its call,
// which the shutdown before has ended.
constexpr useconds_t kSenderPauseUs = 50;

// Peers dropped during one walk of ready events. Their numbers are given back after it: the walk
// can come to an event twice, and must not meet a new peer under the number of a dropped one.
struct Dropped {
    std::array<OwnFd, kSlotCount> fds;
    std::size_t count = 0;

    bool is_full() const
    {
        return count == fds.size();
    }
};

// What the accept thread works on.
struct Acceptor {
    kp_notify_t &endpoint;
    OwnFd poll;
    int listening_fd;

    std::span<int32_t> peers() const
    {
        return std::span(endpoint.client_fds).subspan(kFirstPeerSlot);
    }
};

bool ran_out(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Accepts a connection if one waits. The listening socket blocks, and the walk can come to its
// event twice.
OwnFd accept_waiting(int listening_fd)
{
    pollfd waiting{};
    waiting.fd = listening_fd;
    waiting.events = POLLIN;
    if (poll(&waiting, 1, 0) != 1)
        return OwnFd();
    OwnFd peer = own_fd([&] { return accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC); });
    if (!peer && ran_out(errno))
        (void)usleep(kNoDescriptorPauseUs);
    return peer;
}

// Drops the peer on this descriptor, if it is one.
void drop_peer(const Acceptor &acceptor, int fd, Dropped &dropped, LogSite site)
{
    const std::size_t place = find_slot(acceptor.peers(), fd);
    if (place == acceptor.peers().size())
        return;
    remove_interest(acceptor.poll, fd, site);
    if (!replace_if(acceptor.peers()[place], fd, kFreeSlot))
        return; // the close has it
    (void)shutdown(fd, SHUT_RDWR);
    while (load_ordered(acceptor.endpoint.senders[kFirstPeerSlot + place]) != 0)
        (void)usleep(kSenderPauseUs);
    dropped.fds[dropped.count++].reset(fd);
}

// Drops the peers that have hung up, so that they keep no place from others.
void drop_gone_peers(const Acceptor &acceptor, Dropped &dropped, LogSite site)
{
    std::array<pollfd, kSlotCount - kFirstPeerSlot> peers{};
    for (std::size_t place = 0; place < peers.size(); ++place)
        peers[place] = {load_ordered(acceptor.peers()[place]), POLLRDHUP, 0};
    if (poll(peers.data(), peers.size(), 0) <= 0)
        return;
    for (const pollfd &peer : peers)
        if ((peer.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0 && !dropped.is_full())
            drop_peer(acceptor, peer.fd, dropped, site);
}

// Accepts a peer and returns the index after which the walk of the ready events goes on.
std::size_t accept_peer(const Acceptor &acceptor, std::size_t index, Dropped &dropped, LogSite site)
{
    OwnFd peer = accept_waiting(acceptor.listening_fd);
    if (!peer)
        return index;
    // Deliberate: the walk goes on after the number of the slot, not after the event. Events that
    // are skipped stay ready and come with the next wait.
    std::size_t slot = kFirstPeerSlot + take_slot(acceptor.peers(), peer.get());
    if (slot == kSlotCount) {
        drop_gone_peers(acceptor, dropped, site);
        slot = kFirstPeerSlot + take_slot(acceptor.peers(), peer.get());
    }
    if (slot == kSlotCount)
        KP_LOG_AT(KP_LEVEL_WARN, site, "Cannot find free socket in client_fds poll\n");
    else
        (void)add_interest(acceptor.poll, peer.release(), site);
    return slot;
}

void serve_events(const Acceptor &acceptor, std::span<const epoll_event> events,
                  LogSite site = LogSite::current())
{
    Dropped dropped;
    for (std::size_t index = 0; index < events.size(); ++index) {
        const int fd = events[index].data.fd;
        if (fd == acceptor.listening_fd)
            index = accept_peer(acceptor, index, dropped, site);
        else if (!dropped.is_full())
            drop_peer(acceptor, fd, dropped, site);
    }
}

} // namespace

void *subscriber_connecting_listener(void *arg)
{
    auto &endpoint = *static_cast<kp_notify_t *>(arg);
    store_release(endpoint.stop, 0);
    const int listening_fd = load_ordered(endpoint.client_fds[kListeningSlot]);
    (void)sem_post(&endpoint.stop_cleared); // a close may follow from here on

    const Acceptor acceptor{endpoint, own_fd([&] { return epoll_create1(EPOLL_CLOEXEC); }),
                            listening_fd};
    if (!acceptor.poll) {
        KP_ERROR("epoll_create1 failed\n");
        return nullptr;
    }
    (void)add_interest(acceptor.poll, listening_fd);
    const int timeout_ms = watch_for_close(endpoint, acceptor.poll);

    std::array<epoll_event, kSlotCount + 1> room;
    while (!is_stopping(endpoint)) {
        const auto [wait, events] = wait_for_events(acceptor.poll, room, timeout_ms);
        if (!can_go_on(wait))
            break;
        serve_events(acceptor, events);
    }
    return nullptr;
}

} // namespace kp
