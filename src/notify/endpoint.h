// The notification endpoint: one listening socket, connections from and to every other endpoint and
// three threads. docs/notification.md tells how endpoints find each other,
// docs/threads-and-locks.md who may touch what. A slot of a descriptor table belongs to whoever
// takes the descriptor out of it, or puts it in, with one atomic exchange; the one lock covers
// which entries of the directory are connected.
#pragma once

#include "kp.h"
#include "layout/field.h"
#include "layout/notice.h"
#include "notify/connect.h"
#include "notify/entry.h"
#include "notify/pending.h"
#include "support/fork.h"
#include "support/log.h"
#include "support/path.h"

#include <array>
#include <cstddef>
#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>
#include <span>
#include <sys/epoll.h>
#include <sys/un.h>

namespace kp {

constexpr int kSlotCount = 32;
constexpr int kListeningSlot = 0;
constexpr int kFirstPeerSlot = 1;
constexpr int kFreeSlot = -1;

constexpr int kReadEnd = 0;
constexpr int kWriteEnd = 1;

constexpr uint8_t kStopping = 255;
constexpr std::size_t kEventBufferSize = 32768;

} // namespace kp

// `client_fds` slots from kFirstPeerSlot on are filled by the accept thread, `server_fds` by the
// watch thread and, during the start, by the starting thread. Everybody reads them with atomic
// loads.
struct kp_notify_t {
    uint8_t stop; // non-zero: every thread leaves at its next wake-up
    pthread_t linkup_thread;
    pthread_t receive_thread;
    pthread_t connecting_thread;
    char name[KP_ENDPOINT_NAME_SIZE];
    int32_t client_fds[kp::kSlotCount]; // listening socket, then accepted peers, to which we send
    int32_t server_fds[kp::kSlotCount]; // connections to peers, from which we receive
    uint8_t *msg_buf;
    int32_t msg_buf_size;
    kp_notify_cb_t callback; // replaced by any thread, read by the receive thread
    void *cb_obj;
    int32_t cancel_fds[2];     // a pipe; one byte in it wakes all threads. 0: never created
    int32_t new_server_fds[2]; // a pipe; one byte for each new connection. 0: never created
    uint8_t event_buf[kp::kEventBufferSize]; // the watch thread's
    // The places of the fields from here on may change.
    uint32_t senders[kp::kSlotCount]; // threads that are sending on a slot's descriptor
    sem_t stop_cleared;               // posted by the accept thread once it has cleared `stop`
    sem_t watch_tried;                // posted by the watch thread once it watches, or cannot
    int32_t watch_fd;                 // a directory watch whose thread ended early, else -1
    kp::ForkLink fork_link;
    bool is_parents; // this is a child of fork(): threads, descriptors and file are the parent's
    pthread_mutex_t claims_mutex; // covers `claims`
    std::array<kp::Claim, kp::kSlotCount + kp::kConnectorCount> claims;
    kp::Pending pending; // the watch thread's
};

static_assert(offsetof(kp_notify_t, stop) == 0);
static_assert(offsetof(kp_notify_t, linkup_thread) == 8);
static_assert(offsetof(kp_notify_t, receive_thread) == 16);
static_assert(offsetof(kp_notify_t, connecting_thread) == 24);
static_assert(offsetof(kp_notify_t, name) == 32);
static_assert(offsetof(kp_notify_t, client_fds) == 160);
static_assert(offsetof(kp_notify_t, server_fds) == 288);
static_assert(offsetof(kp_notify_t, msg_buf) == 416);
static_assert(offsetof(kp_notify_t, msg_buf_size) == 424);
static_assert(offsetof(kp_notify_t, callback) == 432);
static_assert(offsetof(kp_notify_t, cb_obj) == 440);
static_assert(offsetof(kp_notify_t, cancel_fds) == 448);
static_assert(offsetof(kp_notify_t, new_server_fds) == 456);
static_assert(offsetof(kp_notify_t, event_buf) == 464);

// From 128 KiB on the C library gives a zeroed block pages of its own, of which those that nobody
// touches, as most of the buffers here, take no memory.
static_assert(sizeof(kp_notify_t) > std::size_t{128} * 1024);

namespace kp {

// Thread entry points; the argument is the endpoint.
void *subscriber_connecting_listener(void *arg); // accepts peers and drops those that hang up
void *publisher_linkup_listener(void *arg);      // watches the directory for new sockets
void *message_receive_listener(void *arg);       // receives messages and calls the callback

// The two halves of opening an endpoint; false after a log line where there is one to write.
bool notify_server_init(kp_notify_t &endpoint);
bool notify_client_init(kp_notify_t &endpoint);

// Handles one batch of directory events. Returns 1 if reading it failed, else 0.
int handle_read_event(kp_notify_t &endpoint, int fd);

// Gives the receive buffer at least `size` bytes, losing its contents. Returns 0, or -1.
int extend_message_size(kp_notify_t &endpoint, std::size_t size);

// How many bytes a receive buffer of `size` bytes takes: it is read in whole words.
constexpr std::size_t message_room(std::size_t size)
{
    return (size + sizeof(uint32_t) - 1) / sizeof(uint32_t) * sizeof(uint32_t);
}

// A socket address in the endpoint directory; a path that is too long is cut, with a log line under
// the caller's name.
sockaddr_un socket_address(const char *name, LogSite site = LogSite::current());

// Starts a thread that blocks every signal, so that the application's handlers run on its own
// threads; stores its handle, or leaves that 0 with errno set.
bool start_thread(pthread_t &thread, void *(*body)(void *), kp_notify_t &endpoint);

inline bool is_stopping(const kp_notify_t &endpoint)
{
    return load_acquire(endpoint.stop) != 0;
}

// Says whether an entry of the directory is the socket of another endpoint.
bool is_peer(const kp_notify_t &endpoint, const dirent &entry);

// Puts a descriptor into the first free slot. Gives the slot's number, or `slots.size()` when no
// slot is free.
std::size_t take_slot(std::span<int32_t> slots, int fd);

// The number of the slot that holds a descriptor, or `slots.size()`.
std::size_t find_slot(std::span<const int32_t> slots, int fd);

// Adds a descriptor to an epoll set; says whether it is in it now. A failure is logged under the
// caller's name.
bool add_interest(const OwnFd &poll, int fd, LogSite site = LogSite::current());
void remove_interest(const OwnFd &poll, int fd, LogSite site = LogSite::current());

enum class Wait { ready, interrupted, failed };

struct ReadyEvents {
    Wait wait;
    std::span<const epoll_event> events;
};

// Adds the pipe that wakes the threads when the endpoint is closed. Gives the longest time that a
// wait may last: a day, or, when the pipe could not be added, a time so short that the thread sees
// the stop flag by itself.
int watch_for_close(const kp_notify_t &endpoint, const OwnFd &poll,
                    LogSite site = LogSite::current());

// Waits for events.
ReadyEvents wait_for_events(const OwnFd &poll, std::span<epoll_event> room, int timeout_ms);

// Says whether a thread can go on after such a wait. If it cannot, the reason is logged under the
// caller's name.
bool can_go_on(Wait wait, LogSite site = LogSite::current());

} // namespace kp
