// What the value benchmark asks of a contestant. It writes and reads the latest values of a number
// of topics, each value with the time of its write. Every program of the benchmark holds the limit
// and one contestant, and times both in turn.
#pragma once

#include "support/placement.h"
#include "support/process.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace bench {

constexpr unsigned kTopics = 64;
constexpr unsigned kLargestValue = 4000;

// The topic of the operations on one topic. It stands between others, as most do: the processor's
// string copy looks beyond the end of a large value, and takes four times as long where an
// inaccessible page follows, which can be so for the first segment that a process maps.
constexpr unsigned kBusyTopic = kTopics / 2;

// One side of a contestant in one process. The loops stand behind one virtual call, so that it does
// not weigh on a single operation.
class Store {
  public:
    virtual ~Store() = default;
    virtual void write_many(unsigned count, const std::byte *value) = 0; // one topic
    virtual void read_many(unsigned count, std::byte *buffer) = 0;
    virtual void write_each(const std::byte *value) = 0; // every topic once
    virtual void read_each(std::byte *buffer) = 0;
};

// Makes a Store of a class with write(topic, value) and read(topic, buffer).
template <typename Contestant> class LoopedStore final : public Store {
  public:
    LoopedStore(Side side, uint32_t size) : contestant_(side, size)
    {
    }
    void write_many(unsigned count, const std::byte *value) override
    {
        for (unsigned i = 0; i < count; ++i)
            contestant_.write(kBusyTopic, value);
    }
    void read_many(unsigned count, std::byte *buffer) override
    {
        for (unsigned i = 0; i < count; ++i)
            contestant_.read(kBusyTopic, buffer);
    }
    void write_each(const std::byte *value) override
    {
        for (unsigned topic = 0; topic < kTopics; ++topic)
            contestant_.write(topic, value);
    }
    void read_each(std::byte *buffer) override
    {
        for (unsigned topic = 0; topic < kTopics; ++topic)
            contestant_.read(topic, buffer);
    }

  private:
    Contestant contestant_;
};

// The sender is opened first and writes every topic before the receiver is opened.
using OpenStore = std::function<std::unique_ptr<Store>(Side side, uint32_t size)>;

template <typename Contestant> OpenStore store_of()
{
    return [](Side side, uint32_t size) {
        return std::make_unique<LoopedStore<Contestant>>(side, size);
    };
}

struct ValueContestant {
    const char *name;
    OpenStore open;
    OpenStore open_limit; // the limit that it is compared with
    std::function<Child()> start_broker = {};
};

// Each program of the benchmark defines its own.
std::vector<ValueContestant> value_contestants();

// Ends the program when a peer refuses.
void require(bool condition, const char *what);

} // namespace bench
