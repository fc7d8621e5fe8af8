// The rule of the shared tree by itself, and a model of devices that follow it.
#include "shared/shared_tree.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <utility>

using namespace kp::mqtt;

namespace {

const Clock::time_point kNow{std::chrono::hours(1)};

Arrival from(const std::string &device, MessageKey key, uint64_t source_ts)
{
    return {device, key, false, false, source_ts};
}

Arrival clearing_from(const std::string &device)
{
    return {device, 0, false, true, 0};
}

// What a topic holds; none where it has no content.
struct Value {
    int content = 0;
    uint64_t source_ts = 0;
    bool operator==(const Value &) const = default;
};

struct Packet {
    enum class Kind { subscribe, message, end_of_reading } kind;
    std::string device;
    MessageKey key = 0;
    Value value{};
};

// One device with one tag, as docs/mqtt.md tells it.
struct Device {
    std::string name;
    SharedTree tree{name};
    Value value{};
    Standing standing = Standing::absent;
    MessageKey key = 0;     // of the message that the value came with; 0: an earlier run had it
    bool is_ours = false;   // in the state file: the broker has a value because of this device
    bool is_taken = false;  // in the state file: the value came from there
    MessageKey awaited = 0; // what was sent last and is not acknowledged
    bool is_connected = false;
    bool is_reading = false;
    std::deque<Packet> outwards{};
    std::deque<Packet> inwards{};

    bool is_absent() const
    {
        return standing == Standing::absent;
    }
    void become(Standing now, Value its_value = {})
    {
        standing = now;
        value = its_value;
    }

    void take(const Packet &packet)
    {
        if (packet.kind == Packet::Kind::end_of_reading)
            return stop_reading();
        const bool is_own = packet.device == name;
        const bool clears = packet.value.content == 0;
        const Effect effect =
            tree.received("t", {packet.device, packet.key, is_own, clears, packet.value.source_ts},
                          standing, value.source_ts, kNow);
        if (is_own && packet.key == awaited) {
            awaited = 0;
            is_ours = is_ours && !clears;
        }
        if (effect == Effect::write) {
            become(Standing::from_broker, packet.value);
            key = packet.key;
            is_taken = true;
            is_ours = false;
        }
        if (effect == Effect::drop) {
            become(Standing::absent);
            is_taken = false;
        }
        if (effect == Effect::repeat)
            standing = Standing::unsent;
    }
    void stop_reading()
    {
        is_reading = false;
        const bool is_there = tree.is_there("t");
        if (!is_there && std::exchange(is_taken, is_taken && is_there) &&
            standing == Standing::from_broker)
            become(Standing::absent);
        if (!is_there && standing == Standing::sent)
            standing = Standing::unsent;
        if (!is_there && is_absent())
            is_ours = false;
        tree.forget_what_is_not_there();
    }
    // What goes to the broker now.
    std::optional<Packet> next(MessageKey number)
    {
        if (!is_connected || is_reading)
            return {};
        if (standing == Standing::from_broker && key && !tree.is_last("t", key))
            standing = Standing::unsent;
        const bool is_removed = is_absent() && (is_ours || (is_taken && tree.is_there("t")));
        if (standing != Standing::unsent && (!is_removed || awaited))
            return {};
        awaited = number;
        tree.sent("t", number, kNow);
        is_ours = true;
        is_taken = false;
        if (!is_absent())
            standing = Standing::sent;
        return Packet{Packet::Kind::message, name, number, value};
    }
    void cut()
    {
        is_connected = false;
        outwards.clear();
        inwards.clear();
        tree.connection_lost();
        if (std::exchange(awaited, 0) && standing == Standing::sent)
            standing = Standing::unsent;
    }
    void connect()
    {
        is_connected = is_reading = true;
        tree.start_reading();
        outwards.push_back({Packet::Kind::subscribe, name});
    }
    void restart(bool leaves_values)
    {
        cut();
        tree = SharedTree(name);
        key = 0;
        if (standing == Standing::from_broker && !leaves_values)
            become(Standing::absent);
        if (standing == Standing::sent)
            standing = Standing::unsent;
    }
};

// A broker with one topic, and the devices that share it. Lines deliver in order or are cut; clocks
// are set anyhow.
class World {
  public:
    World(size_t devices, unsigned seed) : random_(seed)
    {
        for (size_t at = 0; at < devices; ++at)
            devices_.push_back({std::string(1, static_cast<char>('a' + at))});
    }

    void do_anything()
    {
        Device &device = devices_[choose(devices_.size())];
        switch (choose(20)) {
        case 0:
        case 1:
            ++events_;
            return device.become(Standing::unsent, {++contents_, 1 + choose(9)});
        case 2: // only a device that has written a tag removes it
            ++events_;
            if (device.standing == Standing::sent || device.standing == Standing::unsent)
                device.become(Standing::absent);
            return;
        case 3:
            return device.cut();
        case 4:
            ++events_;
            return device.restart(choose(2) == 0);
        case 5:
            return connect(device);
        default:
            return move(device);
        }
    }
    void come_to_rest()
    {
        for (Device &device : devices_)
            connect(device);
        for (int round = 0; round < 200; ++round)
            for (Device &device : devices_)
                move(device);
    }

    bool agrees() const
    {
        return std::ranges::all_of(
            devices_, [this](const Device &device) { return device.value == kept_.value; });
    }
    bool rests() const
    {
        return std::ranges::all_of(devices_, [](const Device &device) {
            return device.inwards.empty() && device.outwards.empty() && !device.is_reading;
        });
    }
    // Each event makes at most one message of each device.
    bool sent_too_much() const
    {
        return messages_ > events_ * devices_.size();
    }
    std::string told() const
    {
        std::string text = "broker " + std::to_string(kept_.value.content);
        for (const Device &device : devices_)
            text += ", " + device.name + ' ' + std::to_string(device.value.content);
        return text + ", " + std::to_string(messages_) + " messages of " + std::to_string(events_);
    }

  private:
    size_t choose(size_t count)
    {
        return std::uniform_int_distribution<size_t>(0, count - 1)(random_);
    }
    void connect(Device &device)
    {
        if (device.is_connected)
            return;
        ++events_;
        device.connect();
    }
    // One packet of each direction, and what the device sends by itself.
    void move(Device &device)
    {
        if (!device.inwards.empty()) {
            const Packet packet = device.inwards.front();
            device.inwards.pop_front();
            device.take(packet);
        }
        if (const auto packet = device.next(numbers_ + 1)) {
            ++numbers_;
            device.outwards.push_back(*packet);
        }
        if (device.outwards.empty() || choose(2) == 0)
            return;
        const Packet packet = device.outwards.front();
        device.outwards.pop_front();
        reach_broker(device, packet);
    }
    void reach_broker(Device &device, const Packet &packet)
    {
        if (packet.kind == Packet::Kind::subscribe) {
            if (kept_.value.content)
                device.inwards.push_back(kept_);
            device.inwards.push_back({Packet::Kind::end_of_reading, device.name});
            return;
        }
        ++messages_;
        kept_ = packet;
        for (Device &other : devices_)
            if (other.is_connected && !is_waiting_to_subscribe(other))
                other.inwards.push_back(packet);
    }
    static bool is_waiting_to_subscribe(const Device &device)
    {
        return std::ranges::any_of(device.outwards, [](const Packet &packet) {
            return packet.kind == Packet::Kind::subscribe;
        });
    }

    std::mt19937 random_;
    std::deque<Device> devices_;
    Packet kept_{Packet::Kind::message, ""};
    int contents_ = 0;
    MessageKey numbers_ = 0;
    size_t events_ = 0;
    size_t messages_ = 0;
};

// The first seed of so many after which the world does not come to agree, or an empty text.
std::string disagreement(size_t devices, unsigned seeds)
{
    for (unsigned seed = 0; seed < seeds; ++seed) {
        World world(devices, seed);
        for (int step = 0; step < 400; ++step)
            world.do_anything();
        world.come_to_rest();
        if (!world.rests() || !world.agrees() || world.sent_too_much())
            return "seed " + std::to_string(seed) + ": " + world.told();
    }
    return {};
}

} // namespace

TEST(SharedTreeRule, LetsTwoDevicesComeToAgreeWhateverHappens)
{
    EXPECT_EQ(disagreement(2, 5000), "");
}

TEST(SharedTreeRule, LetsThreeDevicesComeToAgreeWhateverHappens)
{
    EXPECT_EQ(disagreement(3, 5000), "");
}

TEST(SharedTreeRule, PassesOverWhatComesBeforeAnOwnMessage)
{
    SharedTree tree("me");
    tree.sent("t", 7, kNow);

    EXPECT_EQ(tree.received("t", from("you", 3, 5), Standing::sent, 5, kNow), Effect::ignore);
    (void)tree.received("t", {"me", 7, true, false, 5}, Standing::sent, 5, kNow);
    EXPECT_EQ(tree.received("t", from("you", 4, 1), Standing::sent, 5, kNow), Effect::write);
}

TEST(SharedTreeRule, KnowsThatAnOwnMessageOnItsWayComesLast)
{
    SharedTree tree("me");
    (void)tree.received("t", from("you", 3, 5), Standing::absent, 0, kNow);
    EXPECT_TRUE(tree.is_last("t", 3));
    EXPECT_FALSE(tree.has_own_last("t"));

    tree.sent("t", 7, kNow);

    EXPECT_FALSE(tree.is_last("t", 3));
    EXPECT_TRUE(tree.has_own_last("t"));
}

TEST(SharedTreeRule, ComparesTimesOnlyWithWhatWaitsToBeSent)
{
    SharedTree tree("me");

    EXPECT_EQ(tree.received("t", from("you", 1, 4), Standing::unsent, 5, kNow), Effect::ignore);
    EXPECT_EQ(tree.received("t", from("you", 2, 6), Standing::unsent, 5, kNow), Effect::write);
    EXPECT_EQ(tree.received("t", from("you", 3, 4), Standing::sent, 5, kNow), Effect::write);
    EXPECT_EQ(tree.received("t", from("you", 4, 4), Standing::from_broker, 5, kNow), Effect::write);
}

TEST(SharedTreeRule, BreaksATieByTheDevice)
{
    SharedTree tree("me");

    EXPECT_EQ(tree.received("t", from("he", 1, 5), Standing::unsent, 5, kNow), Effect::ignore);
    EXPECT_EQ(tree.received("t", from("you", 2, 5), Standing::unsent, 5, kNow), Effect::write);
}

TEST(SharedTreeRule, TakesATimeInTheFutureForNow)
{
    SharedTree tree("me");
    constexpr uint64_t in_the_future = UINT64_MAX - 1;

    EXPECT_EQ(
        tree.received("t", from("he", 1, in_the_future), Standing::unsent, in_the_future, kNow),
        Effect::ignore);
}

TEST(SharedTreeRule, LetsATagGoWithItsTopicUnlessItWasWrittenHere)
{
    SharedTree tree("me");

    EXPECT_EQ(tree.received("t", clearing_from("you"), Standing::from_broker, 0, kNow),
              Effect::drop);
    EXPECT_EQ(tree.received("t", clearing_from("you"), Standing::sent, 0, kNow), Effect::repeat);
    EXPECT_EQ(tree.received("t", clearing_from("you"), Standing::absent, 0, kNow), Effect::ignore);
}

TEST(SharedTreeRule, RemembersNothingOfATopicThatIsGone)
{
    SharedTree tree("me");
    (void)tree.received("t", from("you", 1, 1), Standing::absent, 0, kNow);
    EXPECT_EQ(tree.size(), 1u);

    (void)tree.received("t", clearing_from("you"), Standing::from_broker, 0, kNow);

    EXPECT_EQ(tree.size(), 0u);
}

TEST(SharedTreeRule, WaitsForNoMessageThatTheBrokerRefused)
{
    SharedTree tree("me");
    tree.sent("t", 7, kNow);
    tree.refused("t", 7);

    EXPECT_EQ(tree.received("t", from("you", 1, 1), Standing::sent, 5, kNow), Effect::write);
}
