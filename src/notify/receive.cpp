// The receive thread: waits on the connections to all peers, reads whole messages and hands each to
// the callback. The connections do not block and every body is fetched with one call, so a message
// that has not arrived whole costs its connection.
#include "notify/endpoint.h"

#include "layout/notice.h"
#include "support/cancellation.h"
#include "support/fork.h"
#include "support/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace kp {

namespace {

constexpr std::size_t kWords = message_room(kWriteInfoSize) / sizeof(uint32_t);

// A write notice on its way to the callback.
struct Accumulator {
    uint32_t words[kWords];
};

// What the receive thread alone knows.
struct Receiver {
    kp_notify_t &endpoint;
    Accumulator &accumulator;
    OwnFd poll;
    std::array<int32_t, kSlotCount> shadow; // the connections that are in the epoll set
};

enum class Stop { none, failed, other_type };

// Why the walk of the slots ended, where, and at which type byte.
struct Walk {
    Stop stop = Stop::none;
    std::size_t slot = 0;
    uint8_t type = 0;
    bool notice = false; // a write notice stands in the accumulator
};

bool receive_exactly(int fd, std::span<uint8_t> bytes)
{
    return recv(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

// The bytes of a message behind its type.
std::span<uint8_t> body(const kp_notify_t &endpoint, int32_t message_size)
{
    return std::span(endpoint.msg_buf, static_cast<std::size_t>(message_size)).subspan(1);
}

// Hands a message to the callback; without one, which the application may set, it is dropped.
void deliver(const kp_notify_t &endpoint, const void *message, int32_t length)
{
    if (const kp_notify_cb_t callback = load_acquire(endpoint.callback))
        callback(static_cast<const uint8_t *>(message), length, endpoint.cb_obj);
}

// Takes up the connections that were announced, all at once although only one byte is read: the
// bytes that stay bring the thread back here.
void take_up_connections(Receiver &receiver, LogSite site)
{
    kp_notify_t &endpoint = receiver.endpoint;
    uint8_t byte = 0;
    if (read(endpoint.new_server_fds[kReadEnd], &byte, sizeof(byte)) != sizeof(byte))
        KP_LOG_AT(KP_LEVEL_WARN, site, "read new server fd failed\n");
    for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
        const int32_t fd = load_ordered(endpoint.server_fds[slot]);
        if (fd == receiver.shadow[slot] || fd == kFreeSlot)
            continue;
        receiver.shadow[slot] = fd;
        (void)add_interest(receiver.poll, fd, site);
    }
}

// Reads one type byte, and for a write notice its body, from every slot that holds the descriptor.
Walk walk_slots(Receiver &receiver, int fd)
{
    kp_notify_t &endpoint = receiver.endpoint;
    Walk walk;
    for (; walk.slot < kSlotCount; ++walk.slot) {
        if (load_ordered(endpoint.server_fds[walk.slot]) != fd)
            continue;
        walk.stop = Stop::failed;
        if (!receive_exactly(fd, std::span(&walk.type, 1)))
            return walk;
        if (walk.type != KP_MSG_WRITE_INFO) {
            walk.stop = Stop::other_type;
            return walk;
        }
        endpoint.msg_buf[0] = KP_MSG_WRITE_INFO;
        if (!receive_exactly(fd, body(endpoint, kWriteInfoSize)))
            return walk;
        walk.stop = Stop::none;
        Accumulator received;
        std::memcpy(&received, endpoint.msg_buf, sizeof(received));
        for (std::size_t word = 0; word < kWords; ++word)
            receiver.accumulator.words[word] |= received.words[word];
        walk.notice = true;
    }
    return walk;
}

// Drops the connection in a slot unless the close has it already.
void drop_connection(Receiver &receiver, std::size_t slot, LogSite site)
{
    const OwnFd fd(free_server_slot(receiver.endpoint, slot));
    receiver.shadow[slot] = kFreeSlot;
    if (fd)
        remove_interest(receiver.poll, fd.get(), site);
}

void receive_new_tag(Receiver &receiver, int fd, std::size_t slot)
{
    kp_notify_t &endpoint = receiver.endpoint;
    if (extend_message_size(endpoint, kNewTagInfoSize) != 0)
        return; // the message stays unread in the connection
    endpoint.msg_buf[0] = KP_MSG_NEW_TAG;
    if (receive_exactly(fd, body(endpoint, kNewTagInfoSize))) {
        deliver(endpoint, endpoint.msg_buf, kNewTagInfoSize);
        return;
    }
    // Deliberate: `shadow` keeps the number, so a connection that gets it again in this slot is not
    // taken up.
    const OwnFd dropped(free_server_slot(endpoint, slot));
}

void serve_peer(Receiver &receiver, int fd, LogSite site)
{
    const Walk walk = walk_slots(receiver, fd);
    if (walk.notice) {
        deliver(receiver.endpoint, &receiver.accumulator, kWriteInfoSize);
        std::memset(&receiver.accumulator, 0, kWriteInfoSize);
    }
    if (walk.stop == Stop::failed)
        drop_connection(receiver, walk.slot, site);
    else if (walk.stop == Stop::other_type && walk.type == KP_MSG_NEW_TAG)
        receive_new_tag(receiver, fd, walk.slot);
}

void serve_events(Receiver &receiver, std::span<const epoll_event> events,
                  LogSite site = LogSite::current())
{
    for (const epoll_event &event : events)
        if (event.data.fd == receiver.endpoint.new_server_fds[kReadEnd])
            take_up_connections(receiver, site);
    for (const epoll_event &event : events)
        serve_peer(receiver, event.data.fd, site);
}

} // namespace

int extend_message_size(kp_notify_t &endpoint, std::size_t size)
{
    if (static_cast<std::size_t>(static_cast<int64_t>(endpoint.msg_buf_size)) >= size)
        return 0;
    void *larger = std::calloc(1, message_room(size));
    if (!larger) {
        write_plain("message_receive_listener: error in calloc\n");
        return -1;
    }
    const MallocPtr<uint8_t> smaller(endpoint.msg_buf); // freed last: a child frees `msg_buf` too
    endpoint.msg_buf = static_cast<uint8_t *>(larger);
    endpoint.msg_buf_size = static_cast<int32_t>(size);
    return 0;
}

void *message_receive_listener(void *arg)
{
    const NoCancellation scope; // whatever the callback cancels
    auto &endpoint = *static_cast<kp_notify_t *>(arg);
    const auto accumulator = make_zeroed<Accumulator>();
    if (!accumulator) {
        KP_ERROR("MALLOC NOTIFY(): %s\n", std::strerror(errno));
        return nullptr;
    }
    if (extend_message_size(endpoint, kWriteInfoSize) != 0) {
        (void)std::fprintf(stderr, "error to extend message size to sizeof(kp_write_info)=%zu\n",
                           sizeof(kp_write_info));
        return nullptr;
    }
    Receiver receiver{
        endpoint, *accumulator, own_fd([&] { return epoll_create1(EPOLL_CLOEXEC); }), {}};
    receiver.shadow.fill(kFreeSlot);
    if (!receiver.poll) {
        KP_ERROR("epoll_create1 failed\n");
        return nullptr;
    }
    const int timeout_ms = watch_for_close(endpoint, receiver.poll);
    (void)add_interest(receiver.poll, endpoint.new_server_fds[kReadEnd]);

    std::array<epoll_event, kSlotCount + 2> room;
    while (!is_stopping(endpoint)) {
        const auto [wait, events] = wait_for_events(receiver.poll, room, timeout_ms);
        if (is_stopping(endpoint) || !can_go_on(wait))
            break;
        serve_events(receiver, events);
    }
    if (endpoint.is_parents) // the callback has forked, and this is the child
        (void)receiver.poll.release();
    return nullptr;
}

} // namespace kp
