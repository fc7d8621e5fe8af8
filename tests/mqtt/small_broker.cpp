#include "small_broker.h"

#include "testing/process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kptest {

namespace {

// The kinds of packets, as the upper half of their first byte.
constexpr uint8_t kConnect = 1;
constexpr uint8_t kPublish = 3;
constexpr uint8_t kSubscribe = 8;
constexpr uint8_t kUnsubscribe = 10;
constexpr uint8_t kPing = 12;

constexpr size_t kPieceBytes = 64 * 1024;

// A number as MQTT writes the sizes of packets.
std::string size_bytes(size_t size)
{
    std::string bytes;
    do {
        const size_t rest = size / 128;
        bytes += static_cast<char>(size % 128 + (rest ? 128 : 0));
        size = rest;
    } while (size);
    return bytes;
}

std::string number_bytes(size_t number)
{
    return {static_cast<char>(number / 256), static_cast<char>(number % 256)};
}

size_t number_at(const std::string &bytes, size_t at)
{
    return static_cast<uint8_t>(bytes[at]) * 256u + static_cast<uint8_t>(bytes[at + 1]);
}

// Reads exactly so many bytes; nothing when the client has gone.
std::optional<std::string> read_bytes(int fd, size_t count)
{
    std::string bytes(count, '\0');
    for (size_t done = 0; done < count;) {
        const ssize_t result = recv(fd, bytes.data() + done, count - done, 0);
        if (result <= 0)
            return {};
        done += static_cast<size_t>(result);
    }
    return bytes;
}

std::optional<size_t> read_size(int fd)
{
    size_t size = 0;
    for (size_t factor = 1;; factor *= 128) {
        const auto byte = read_bytes(fd, 1);
        if (!byte)
            return {};
        const auto part = static_cast<uint8_t>((*byte)[0]);
        size += part % 128 * factor;
        if (part < 128)
            return size;
    }
}

bool send_all(int fd, const std::string &bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

} // namespace

SmallBroker::SmallBroker(Subscribing subscribing)
    : subscribing_(std::move(subscribing)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(listen(listener_.get(), 8), 0);
    EXPECT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

SmallBroker::~SmallBroker()
{
    stop_ = true;
    if (const auto client = held())
        (void)shutdown(client->get(), SHUT_RDWR);
    thread_.join();
}

void SmallBroker::run()
{
    while (!stop_) {
        pollfd waiting{listener_.get(), POLLIN, 0};
        if (poll(&waiting, 1, 50) <= 0)
            continue;
        const auto client = std::make_shared<kp::UniqueFd>(
            accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        hold(client);
        serve(client->get());
        (void)shutdown(client->get(), SHUT_RDWR);
    }
}

void SmallBroker::hold(std::shared_ptr<kp::UniqueFd> client)
{
    const std::lock_guard lock(mutex_);
    client_ = std::move(client);
}

std::shared_ptr<kp::UniqueFd> SmallBroker::held() const
{
    const std::lock_guard lock(mutex_);
    return client_;
}

void SmallBroker::serve(int client)
{
    while (!stop_) {
        const auto first = read_bytes(client, 1);
        const auto size = first ? read_size(client) : std::nullopt;
        const auto body = size ? read_bytes(client, *size) : std::nullopt;
        if (!body || !send_whole(client, answer(static_cast<uint8_t>((*first)[0]), *body)))
            return;
        clients_ += static_cast<uint8_t>((*first)[0]) >> 4 == kConnect;
    }
}

bool SmallBroker::send_whole(int client, const std::string &packet)
{
    const std::lock_guard lock(sending_);
    return send_all(client, packet);
}

// To a packet of which nobody needs an answer it is empty. Subscriptions have one filter each, and
// properties of less than 128 bytes.
std::string SmallBroker::answer(uint8_t first, const std::string &body) const
{
    const uint8_t kind = first >> 4;
    const bool wants_acknowledgement = (first >> 1 & 3) == 1;
    if (kind == kConnect)
        return {0x20, 3, 0, 0, 0};
    if (kind == kPing)
        return {static_cast<char>(0xd0), 0};
    if (kind == kUnsubscribe)
        return {static_cast<char>(0xb0), 4, body[0], body[1], 0, 0};
    if (kind == kPublish && wants_acknowledgement) {
        const size_t id = 2 + number_at(body, 0);
        return {0x40, 2, body[id], body[id + 1]};
    }
    if (kind != kSubscribe)
        return {};
    const size_t filter = 3 + static_cast<size_t>(body[2]);
    const auto result =
        static_cast<char>(subscribing_(body.substr(filter + 2, number_at(body, filter))));
    return {static_cast<char>(0x90), 4, body[0], body[1], 0, result};
}

size_t SmallBroker::send_message(const std::string &topic, size_t payload_bytes)
{
    const auto client = held();
    const std::lock_guard lock(sending_);
    const std::string head = number_bytes(topic.size()) + topic + '\0'; // no properties
    if (!client ||
        !send_all(client->get(), "\x30" + size_bytes(head.size() + payload_bytes) + head))
        return 0;
    const std::string piece(kPieceBytes, 'x');
    size_t done = 0;
    while (done < payload_bytes) {
        const size_t now = std::min(kPieceBytes, payload_bytes - done);
        if (!send_all(client->get(), piece.substr(0, now)))
            break;
        done += now;
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // as a line does
    }
    return done;
}

} // namespace kptest
