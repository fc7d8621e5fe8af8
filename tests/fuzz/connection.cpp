// The bytes of a peer's connection in arbitrary pieces, one more for each wait of the receive
// thread, whose body runs here on the fuzzer's own thread. What it delivers is compared with a
// model of the protocol, and handed to a handle that follows every announced topic.
#include "fuzz/fuzz.h"

#include "core/handle.h"
#include "kp.h"
#include "layout/notice.h"
#include "notify/endpoint.h"

#include <deque>
#include <sys/socket.h>

using namespace kpfuzz;

namespace {

using Messages = std::vector<std::string>;

kp_t *handle;
kp_notify_t *endpoint; // the one that an input drives
int peer_fd = -1;
std::deque<std::string> pieces;
Messages delivered;

void take_message(const uint8_t *message, int32_t length, void *)
{
    const uint8_t type = message[0];
    check((type == KP_MSG_WRITE_INFO && length == kp::kWriteInfoSize) ||
              (type == KP_MSG_NEW_TAG && length == kp::kNewTagInfoSize),
          "a message has the size of its type");
    delivered.emplace_back(reinterpret_cast<const char *>(message),
                           static_cast<std::size_t>(length));
    kp_notify_callback(message, length, handle);
}

// Gives the messages that the receiver must deliver when one piece arrives before each of its
// looks.
Messages expected_messages(const std::deque<std::string> &all)
{
    Messages messages;
    std::string waiting;
    for (const std::string &piece : all) {
        waiting += piece;
        if (waiting.empty())
            continue;
        const char type = waiting[0];
        const std::size_t size = type == KP_MSG_WRITE_INFO ? kp::kWriteInfoSize
                                 : type == KP_MSG_NEW_TAG  ? kp::kNewTagInfoSize
                                                           : 1;
        if (waiting.size() < size)
            return messages; // the rest of the body is not there: the connection is closed
        if (size > 1)
            messages.push_back(waiting.substr(0, size));
        waiting.erase(0, size);
    }
    return messages;
}

std::deque<std::string> split(FuzzedDataProvider &input)
{
    std::deque<std::string> all;
    while (input.remaining_bytes() > 0 && all.size() < 64) {
        // Whole messages are likely, so that the ways behind them are reached.
        const auto shape = input.ConsumeIntegralInRange<int>(0, 3);
        std::string piece;
        if (shape == 0)
            piece = '\1' + input.ConsumeBytesAsString(128);
        else if (shape == 1)
            piece = '\2' + input.ConsumeRandomLengthString(386);
        else
            piece = input.ConsumeRandomLengthString(600);
        if (shape == 0)
            piece.resize(kp::kWriteInfoSize);
        if (shape == 1)
            piece.resize(kp::kNewTagInfoSize);
        all.push_back(piece);
    }
    // Nothing is left over in the connection at the end.
    all.insert(all.end(), 64, "");
    return all;
}

void drive(const std::deque<std::string> &all)
{
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
          "a socket pair");
    peer_fd = ends[1];
    pieces = all;
    delivered.clear();
    endpoint->stop = 0;
    endpoint->server_fds[3] = ends[0];
    check(write(endpoint->new_server_fds[kp::kWriteEnd], "", 1) == 1, "announcing a connection");
    (void)kp::message_receive_listener(endpoint);
    if (endpoint->server_fds[3] != kp::kFreeSlot)
        (void)close(endpoint->server_fds[3]);
    endpoint->server_fds[3] = kp::kFreeSlot;
    (void)close(peer_fd);
}

} // namespace

extern "C" {

int __real_epoll_wait(int poll, epoll_event *events, int room, int timeout);
int __wrap_epoll_wait(int poll, epoll_event *events, int room, int timeout);

// The receiver waits for its next piece; after the last one it is told to stop. The threads of the
// handle wait as always.
int __wrap_epoll_wait(int poll, epoll_event *events, int room, int timeout)
{
    if (peer_fd == -1 || timeout == 0 || pthread_self() != endpoint->receive_thread)
        return __real_epoll_wait(poll, events, room, timeout);
    // The first wait takes up the connection, and more than one piece stands in no queue.
    const int ready = __real_epoll_wait(poll, events, room, 0);
    if (ready > 0 && events[0].data.fd == endpoint->new_server_fds[kp::kReadEnd])
        return ready;
    if (pieces.empty()) {
        endpoint->stop = kp::kStopping;
        return 0;
    }
    (void)send(peer_fd, pieces.front().data(), pieces.front().size(), MSG_NOSIGNAL);
    pieces.pop_front();
    return __real_epoll_wait(poll, events, room, 0);
}
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare();
    handle = kp_new("fuzzer", nullptr);
    check(handle && kp_sub_topic(handle, "#") == -1, "a handle that follows every topic");
    endpoint = static_cast<kp_notify_t *>(std::calloc(1, sizeof(kp_notify_t)));
    check(endpoint != nullptr, "memory for an endpoint");
    std::fill_n(endpoint->client_fds, kp::kSlotCount, kp::kFreeSlot);
    std::fill_n(endpoint->server_fds, kp::kSlotCount, kp::kFreeSlot);
    endpoint->callback = take_message;
    endpoint->receive_thread = pthread_self();
    check(kp::own_pipe(endpoint->cancel_fds) && kp::own_pipe(endpoint->new_server_fds), "pipes");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::deque<std::string> all = split(input);
    // The initial size of a receive buffer; it grows with the first announcement.
    std::free(endpoint->msg_buf);
    endpoint->msg_buf = static_cast<uint8_t *>(std::calloc(1, kp::message_room(1)));
    endpoint->msg_buf_size = 1;

    drive(all);

    check(delivered == expected_messages(all), "what is delivered is what the protocol says");
    check(only_the_store_was_touched(), "an announced topic stays in the store");
    (void)kp_tags_destroy(handle);
    static unsigned inputs = 0;
    if (++inputs % 256 == 0)
        empty_folders();
    return 0;
}
