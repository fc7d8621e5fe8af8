// What the broker's order makes of the topics of a shared tree, which several devices write. The
// rule is told as a small model in docs/mqtt.md; this class holds no values and does nothing by
// itself.
//
// All devices see the messages of one topic in one order, their own among them. While an own
// message is on its way, what others have sent comes before it in this order and is passed over;
// when the own message has come back, whatever comes after it counts. So the last message decides
// everywhere.
#pragma once

#include "base/clock.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kp::mqtt {

// How the tag of a topic stands in the store.
enum class Standing {
    absent,      // there is no such tag, or it has no value
    from_broker, // the bridge has written its value
    sent,        // its value was written here and has been sent, or is not to be sent
    unsent,      // its value was written here and waits to be sent
};

// What a message asks for.
enum class Effect {
    ignore,
    write,  // the message's value belongs into the tag
    drop,   // the tag goes with its topic
    repeat, // the tag lives on here, and the broker has lost its value
};

// Says which message it is: equal messages of others have equal keys, and own ones a number each.
using MessageKey = uint64_t;

struct Arrival {
    std::string origin; // the device that has sent it, or an empty text
    MessageKey key = 0;
    bool is_own = false;
    bool is_clearing = false;
    uint64_t source_ts = 0; // microseconds since the epoch
};

class SharedTree {
  public:
    explicit SharedTree(std::string device) : device_(std::move(device))
    {
    }

    // To be called when a message of this device has gone to the broker, from where it is expected
    // back; and when the broker has refused it, so that it does not come.
    void sent(const std::string &topic, MessageKey key, Clock::time_point now);
    void refused(const std::string &topic, MessageKey key);

    void connection_lost();
    // To be called before the messages arrive that the broker has kept. A topic of which none
    // arrives has no value there.
    void start_reading();
    void forget_what_is_not_there();

    // `source_ts` is that of the tag where it is unsent.
    Effect received(const std::string &topic, const Arrival &arrival, Standing standing,
                    uint64_t source_ts, Clock::time_point now);

    // Whether the broker keeps a value of the topic, as far as has been heard.
    bool is_there(const std::string &topic) const;
    // Whether the message is the last one of the topic, as far as has been heard. An own one that
    // is on its way comes after it.
    bool is_last(const std::string &topic, MessageKey key) const;
    // Whether the last one is a value that this device has sent.
    bool has_own_last(const std::string &topic) const;
    // The topics that are remembered: those that the broker keeps and those with a message on its
    // way.
    size_t size() const
    {
        return topics_.size();
    }

  private:
    struct Topic {
        MessageKey last = 0; // 0: a clearing, or nothing heard yet
        bool is_there = false;
        bool is_own = false;       // the last one
        MessageKey on_its_way = 0; // the last own message that has not come back; 0: none
        Clock::time_point sent_at{};
    };
    using Topics = std::unordered_map<std::string, Topic>;

    void take_own(Topic &topic, const Arrival &arrival);
    bool wins(const Arrival &arrival, uint64_t source_ts) const;
    void forget_if_empty(Topics::iterator found);

    std::string device_;
    Topics topics_;
};

} // namespace kp::mqtt
