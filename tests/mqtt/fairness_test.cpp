// A line that carries less than what changes: nobody waits for ever.
#include "broker.h"
#include "device.h"
#include "line.h"

#include <gtest/gtest.h>
#include <set>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

constexpr int kBusy = 40;
constexpr int kQuiet = 50;

std::string busy_topic(int number)
{
    return "a/busy/" + std::to_string(number);
}

// Changes all busy topics ten times a second, as long as it lives.
class Load {
  public:
    explicit Load(Tags &tags) : thread_([this, &tags] { run(tags); })
    {
    }
    ~Load()
    {
        stop_ = true;
        thread_.join();
    }

  private:
    void run(Tags &tags)
    {
        for (int round = 0; !stop_; ++round) {
            for (int number = 0; number < kBusy; ++number)
                tags.write(busy_topic(number), std::to_string(round));
            std::this_thread::sleep_for(100ms); // ten times a second
        }
    }

    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

// How many quiet topics the subscriber sees in this time.
size_t quiet_topics_seen(Subscriber &subscriber, std::chrono::seconds time)
{
    std::set<std::string> seen;
    const auto end = std::chrono::steady_clock::now() + time;
    while (seen.size() < kQuiet && std::chrono::steady_clock::now() < end)
        if (const auto message = subscriber.next(100ms))
            seen.insert(message->topic);
    return seen.size();
}

} // namespace

// A round trip of 200 ms and 20 messages in flight carry 100 messages a second, and 400 change.
TEST(SlowLine, CarriesEachQuietTopicWhileOthersChange)
{
    const Broker broker;
    Line line(broker.port(), 100ms);
    Subscriber subscriber(broker.port(), "p/a/quiet/#");
    Tags tags;
    for (int number = 0; number < kBusy; ++number)
        tags.declare(busy_topic(number));
    for (int number = 0; number < kQuiet; ++number) {
        tags.declare("a/quiet/" + std::to_string(number));
        tags.write("a/quiet/" + std::to_string(number), "x");
    }
    const Load load(tags);

    BridgeProgram bridge(line.port(), kBothWays);

    EXPECT_EQ(quiet_topics_seen(subscriber, 10s), static_cast<size_t>(kQuiet));
}
