// Devices that share a tree: when all is quiet, they and the broker hold the same.
#include "broker.h"
#include "device.h"
#include "other_device.h"

#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

constexpr const char *kTree = "[[out]]\npattern = \"a/#\"\nprefix = \"tree\"\n"
                              "[[in]]\nfilter = \"a/#\"\nprefix = \"tree\"\nshared = true\n";
constexpr uint64_t kHour = 3'600'000'000;

uint64_t in_an_hour()
{
    return kp_get_timestamp_us() + kHour;
}

class Devices {
  public:
    Devices(int broker_port, size_t count) : broker_port_(broker_port)
    {
        for (size_t at = 0; at < count; ++at)
            devices_.emplace_back(broker_port, kTree, "device" + std::to_string(at));
    }

    OtherDevice &operator[](size_t at)
    {
        return devices_[at];
    }

    // What each device and the broker hold of some topics, one line each.
    std::vector<std::string> lines(const std::vector<std::string> &topics)
    {
        std::vector<std::string> lines;
        for (OtherDevice &device : devices_) {
            std::string line;
            for (const std::string &topic : topics)
                line += device.value(topic) + "; ";
            lines.push_back(line);
        }
        const auto kept = retained(broker_port_, "tree/#", {"-q", "0"});
        std::string line;
        for (const std::string &topic : topics) {
            const auto found = kept.find("tree/" + topic);
            line += found == kept.end()
                        ? "none; "
                        : found->second.user.at("type") + ' ' + found->second.payload + "; ";
        }
        lines.push_back(line);
        return lines;
    }

    // Waits until all hold the same; what they hold otherwise.
    std::string disagreement(const std::vector<std::string> &topics)
    {
        std::vector<std::string> last;
        const bool agree = wait_until(
            [&] {
                last = lines(topics);
                return std::ranges::count(last, last[0]) == static_cast<long>(last.size());
            },
            25s);
        std::string text;
        for (const std::string &line : last)
            text += agree ? "" : line + '\n';
        return text;
    }

    // One thing that happens to one of them.
    void let_happen(std::mt19937 &random)
    {
        const auto choose = [&random](size_t count) {
            return std::uniform_int_distribution<size_t>(0, count - 1)(random);
        };
        OtherDevice &device = devices_[choose(devices_.size())];
        const std::string topic = "a/" + std::to_string(choose(3));
        switch (choose(12)) {
        case 0:
            EXPECT_TRUE(device.does("drop " + topic));
            return;
        case 1:
            EXPECT_TRUE(device.does("cut"));
            return;
        case 2:
        case 3:
            EXPECT_TRUE(device.does("mend"));
            return;
        case 4:
            EXPECT_TRUE(device.does("stop") && device.does("start"));
            return;
        default: // within an hour of now, whatever the clock says
            EXPECT_TRUE(device.does("declare " + topic));
            EXPECT_TRUE(device.does("write " + topic + " v" + std::to_string(++values_) + ' ' +
                                    std::to_string(in_an_hour() - choose(2 * kHour))));
        }
    }
    void mend_all()
    {
        for (OtherDevice &device : devices_)
            EXPECT_TRUE(device.does("mend"));
    }
    int values() const
    {
        return values_;
    }

  private:
    int broker_port_;
    std::deque<OtherDevice> devices_;
    int values_ = 0;
};

std::string disagreement_after_chance(size_t count, unsigned seed)
{
    const Broker broker;
    Devices devices(broker.port(), count);
    std::mt19937 random(seed);
    for (int step = 0; step < 80; ++step)
        devices.let_happen(random);
    devices.mend_all();
    return devices.disagreement({"a/0", "a/1", "a/2"});
}

} // namespace

TEST(SharedDevices, ComeToAgreeWhateverHappensToTwo)
{
    EXPECT_EQ(disagreement_after_chance(2, 1), "");
}

TEST(SharedDevices, ComeToAgreeWhateverHappensToThree)
{
    EXPECT_EQ(disagreement_after_chance(3, 2), "");
}

TEST(SharedDevices, FollowASenderWhoseClockIsSetRight)
{
    const Broker broker;
    Devices devices(broker.port(), 2);
    ASSERT_TRUE(devices[0].does("declare a/x"));
    ASSERT_TRUE(devices[0].does("write a/x ahead " + std::to_string(in_an_hour())));
    ASSERT_TRUE(devices[1].does("await a/x ahead"));

    ASSERT_TRUE(devices[0].does("write a/x right"));

    EXPECT_TRUE(devices[1].does("await a/x right"));
}

TEST(SharedDevices, FollowATagThatIsMadeAnewWithAnotherTypeMeanwhile)
{
    const Broker broker;
    Devices devices(broker.port(), 2);
    ASSERT_TRUE(devices[0].does("declare a/x"));
    ASSERT_TRUE(devices[0].does("write a/x text"));
    ASSERT_TRUE(devices[1].does("await a/x text"));
    ASSERT_TRUE(devices[1].does("cut"));

    ASSERT_TRUE(devices[0].does("drop a/x"));
    ASSERT_TRUE(devices[0].does("declare a/x int32"));
    ASSERT_TRUE(devices[0].does("write a/x 1234")); // four bytes
    ASSERT_TRUE(devices[1].does("mend"));

    EXPECT_TRUE(devices[1].does("await a/x 1234"));
    EXPECT_EQ(devices[1].value("a/x"), "int32 1234");
}

TEST(SharedDevices, LoseATagThatWasRemovedWhileTheirLineWasCut)
{
    const Broker broker;
    Devices devices(broker.port(), 2);
    ASSERT_TRUE(devices[0].does("declare a/x"));
    ASSERT_TRUE(devices[0].does("write a/x text"));
    ASSERT_TRUE(devices[1].does("await a/x text"));
    ASSERT_TRUE(devices[1].does("cut"));

    ASSERT_TRUE(devices[0].does("drop a/x"));
    ASSERT_TRUE(devices[1].does("mend"));

    EXPECT_TRUE(devices[1].does("await a/x"));
    EXPECT_EQ(devices.disagreement({"a/x"}), "");
}

TEST(SharedDevices, DoNotBringBackARemovedTagWhenTheirBridgeRestarts)
{
    const Broker broker;
    Devices devices(broker.port(), 2);
    ASSERT_TRUE(devices[0].does("declare a/x"));
    ASSERT_TRUE(devices[0].does("write a/x text"));
    ASSERT_TRUE(devices[1].does("await a/x text"));
    ASSERT_TRUE(devices[1].does("kill"));

    ASSERT_TRUE(devices[0].does("drop a/x"));
    ASSERT_TRUE(wait_until([&] { return retained(broker.port(), "tree/#").empty(); }));
    ASSERT_TRUE(devices[1].does("start"));

    EXPECT_TRUE(devices[1].does("await a/x"));
    EXPECT_EQ(devices.disagreement({"a/x"}), "");
}

TEST(SharedDevices, HoldOneOfTwoValuesThatAreWrittenAtOnce)
{
    const Broker broker;
    Devices devices(broker.port(), 2);
    ASSERT_TRUE(devices[0].does("declare a/x"));
    ASSERT_TRUE(devices[1].does("declare a/x"));

    for (int round = 0; round < 10; ++round) {
        const std::string time = ' ' + std::to_string(kp_get_timestamp_us());
        ASSERT_TRUE(devices[0].does("write a/x zero" + std::to_string(round) + time));
        ASSERT_TRUE(devices[1].does("write a/x one" + std::to_string(round) + time));
    }

    EXPECT_EQ(devices.disagreement({"a/x"}), "");
}
