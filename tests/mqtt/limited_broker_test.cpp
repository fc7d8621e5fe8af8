// A broker that can do less than others, or that hangs for a while.
#include "broker.h"
#include "device.h"

#include <csignal>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;

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
