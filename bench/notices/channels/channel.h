// What the notice benchmark asks of a contestant. It tells one or more other processes of a changed
// value, and each of them holds the value when its callback runs.
#pragma once

#include "support/process.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace bench {

constexpr unsigned kMostReceivers = 31;

// The value. Padding behind its number gives it the size of a small record.
struct Message {
    uint64_t number = 0;
    std::array<std::byte, 56> padding{};
};
static_assert(sizeof(Message) == 64);

class Sender {
  public:
    virtual ~Sender() = default;
    virtual void send(const Message &message) = 0;
};

// Receives on a thread of its own until it is destroyed.
class Receiver {
  public:
    virtual ~Receiver() = default;
};

// Called with each value that arrived, on the contestant's receiving thread.
using Delivered = std::function<void(const Message &)>;

class Channel {
  public:
    virtual ~Channel() = default;
    // Is called before the processes part, for what they can only inherit.
    virtual void prepare(unsigned receivers)
    {
        (void)receivers;
    }
    virtual std::unique_ptr<Sender> open_sender() = 0;
    virtual std::unique_ptr<Receiver> open_receiver(unsigned index, Delivered delivered) = 0;
};

struct NoticeContestant {
    const char *name;
    std::function<std::unique_ptr<Channel>()> make;
    std::function<Child()> start_broker = {};
};

template <typename T> std::function<std::unique_ptr<Channel>()> channel_of()
{
    return [] { return std::make_unique<T>(); };
}

// Each program of the benchmark defines its own.
std::vector<NoticeContestant> notice_contestants();

// Makes a name that no other run of a channel has had in this run.
std::string unique_name(const char *stem);

void require(bool condition, const char *what);

inline Message message_from(const void *bytes, std::size_t size)
{
    require(size == sizeof(Message), "a message arrives whole");
    Message message;
    std::memcpy(&message, bytes, sizeof message);
    return message;
}

} // namespace bench
