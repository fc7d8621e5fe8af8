// A broker that can do less than others, or that hangs for a while.
#include "broker.h"
#include "device.h"
#include "small_broker.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

int times_said(const BridgeProgram &bridge, const std::string &text)
{
    const std::string log = bridge.log();
    int times = 0;
    for (size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1))
        ++times;
    return times;
}

bool has_said(const BridgeProgram &bridge, const std::string &text, int times = 1)
{
    return wait_until([&] { return times_said(bridge, text) >= times; });
}

// With a short time until the bridge sees that the broker hangs.
std::string impatient(const Broker &broker)
{
    return configuration(broker.port(), kBothWays, "keep-alive = 5\n");
}

} // namespace

TEST(BrokerThatHangs, ForSeveralAttemptsGetsOnlyWhatChanged)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/one");
    tags.declare("a/two");
    tags.declare("a/changed");
    tags.write("a/one", "x");
    tags.write("a/changed", "y");
    tags.write("a/two", "x");
    BridgeProgram bridge(broker.port(), impatient(broker));
    ASSERT_TRUE(wait_until([] { return status_number("out") == 3; }));
    Subscriber subscriber(broker.port(), "p/a/#");
    (void)subscriber.until_quiet(300ms);
    broker.signal(SIGSTOP);
    ASSERT_TRUE(wait_for_connection(false));
    tags.write("a/changed", "z");
    ASSERT_TRUE(has_said(bridge, "no answer", 3));

    broker.signal(SIGCONT);
    const auto first = subscriber.next();
    const auto more = subscriber.until_quiet(3s);

    ASSERT_TRUE(first);
    EXPECT_EQ(first->topic + " " + first->payload, "p/a/changed z");
    EXPECT_EQ(more.size(), 0u);
    EXPECT_THAT(bridge.log(), HasSubstr("the broker did not answer"));
    EXPECT_THAT(bridge.log(), Not(HasSubstr("Unknown error")));
}

TEST(BrokerThatHangs, AfterItHasLostEverythingGetsEverything)
{
    Broker broker;
    Tags tags;
    tags.declare("a/one");
    tags.declare("a/two");
    tags.write("a/one", "x");
    tags.write("a/two", "y");
    BridgeProgram bridge(broker.port(), impatient(broker));
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));
    broker.kill();
    ASSERT_TRUE(wait_for_connection(false));
    broker.start();
    broker.signal(SIGSTOP);
    ASSERT_TRUE(has_said(bridge, "no answer", 3));

    broker.signal(SIGCONT);

    EXPECT_TRUE(wait_until([&] { return retained(broker.port(), "p/a/#").size() == 2; }));
}

TEST(BrokerLimits, OfQosLowerThatOfMessagesAndWill)
{
    Broker broker("allow_anonymous true\nmax_qos 0\n");
    Tags tags;
    tags.declare("a/b");
    tags.write("a/b", "x");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    ASSERT_TRUE(wait_until([] { return status_number("out") == 1; }));
    EXPECT_EQ(retained(broker.port(), "p/a/#", {"-q", "0"}).at("p/a/b").payload, "x");

    broker.kill();
    ASSERT_TRUE(wait_for_connection(false));
    broker.start();
    ASSERT_TRUE(wait_for_connection());

    EXPECT_EQ(times_said(bridge, "the broker has no QoS 1"), 1);
    EXPECT_THAT(bridge.log(), Not(HasSubstr("the broker refuses the connection")));
}

TEST(BrokerLimits, ThatKeepNoMessagesLetThemPass)
{
    const Broker broker("allow_anonymous true\nretain_available false\n");
    Tags tags;
    tags.declare("a/b");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    ChildProcess subscriber({"/usr/bin/mosquitto_sub", "-V", "5", "-h", "127.0.0.1", "-p",
                             std::to_string(broker.port()), "-t", "p/a/#", "-F", "%t %p"});

    EXPECT_TRUE(wait_until([&] {
        tags.write("a/b", "x"); // until the subscription stands
        return subscriber.hear(300ms) == "p/a/b x";
    }));

    EXPECT_EQ(times_said(bridge, "the broker keeps no messages"), 1);
}

TEST(BrokerLimits, OfPacketSizeBelowThatOfTheStateAreSaid)
{
    const Broker broker("allow_anonymous true\nmax_packet_size 60\n");
    BridgeProgram bridge(broker.port(), kBothWays);

    EXPECT_TRUE(has_said(bridge, "maximum packet size is too small for the state message"));
}

TEST(BrokerThatIgnoresThePacketLimit, LosesAMessageButNotTheConnection)
{
    SmallBroker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    EXPECT_EQ(broker.send_message("s/c/large", 1'000'000), 1'000'000u);
    EXPECT_EQ(broker.send_message("s/c/small", 1), 1u);

    EXPECT_TRUE(wait_for_tag("c/small", "x"));
    EXPECT_THAT(bridge.log(),
                HasSubstr("the message on s/c/large is refused: it has 1000000 bytes"));
    EXPECT_EQ(broker.clients(), 1);
}

TEST(BrokerThatIgnoresThePacketLimit, CostsAFewMebibytesHoweverLargeThePacketIs)
{
    constexpr size_t most = 200'000'000;
    SmallBroker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    const long before = bridge.memory_at_most();

    EXPECT_LT(broker.send_message("s/c/large", most), most);

    EXPECT_TRUE(has_said(bridge, "the broker sends a packet of more than 4 MiB"));
    const long grown = bridge.memory_at_most() - before;
    RecordProperty("grown_kib", static_cast<int>(grown));
    EXPECT_LT(grown, 64 * 1024);
    EXPECT_TRUE(wait_until([&] { return broker.clients() == 2; }));
}
