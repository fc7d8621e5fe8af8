// A list of brokers: which one is used, and what it is sent.
#include "broker.h"
#include "device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

std::string with_fallback(int first, int second)
{
    return configuration(
        first, kBothWays,
        "[[broker.fallback]]\nhost = \"127.0.0.1\"\nport = " + std::to_string(second) + "\n");
}

std::string address(int port)
{
    return "127.0.0.1:" + std::to_string(port);
}

// The value that a broker keeps for a topic; "none" where it keeps none.
std::string kept(const Broker &broker, const std::string &topic)
{
    const auto found = retained(broker.port(), "p/#");
    const auto message = found.find(topic);
    return message == found.end() ? "none" : message->second.payload;
}

} // namespace

TEST(Fallback, IsUsedWhereTheFirstBrokerDoesNotAnswerAndSaysSo)
{
    const Broker broker;
    const ReservedPort port_of_nobody;
    const int nobody = port_of_nobody.number();
    Tags tags;
    tags.declare("a/b");
    tags.write("a/b", "x");

    BridgeProgram bridge(nobody, with_fallback(nobody, broker.port()));

    ASSERT_TRUE(wait_for_connection());
    EXPECT_TRUE(wait_until([&] { return kept(broker, "p/a/b") == "x"; }));
    EXPECT_THAT(bridge.log(), HasSubstr("no connection to " + address(nobody)));
    EXPECT_THAT(bridge.log(), HasSubstr("connected to " + address(broker.port())));
    EXPECT_TRUE(wait_until([&] {
        const auto found = retained(broker.port(), "p/$bridge/#");
        const auto state = found.find("p/$bridge/state");
        return state != found.end() && state->second.user.contains("broker") &&
               state->second.user.at("broker") == address(broker.port());
    }));
}

TEST(Fallback, GetsEverythingThatTheFirstBrokerHad)
{
    Broker first;
    const Broker second;
    Tags tags;
    tags.declare("a/one");
    tags.declare("a/two");
    tags.write("a/one", "x");
    tags.write("a/two", "y");
    BridgeProgram bridge(first.port(), with_fallback(first.port(), second.port()));
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));

    first.kill();

    EXPECT_TRUE(wait_until([&] { return retained(second.port(), "p/a/#").size() == 2; }));
    EXPECT_EQ(kept(second, "p/a/two"), "y");
    EXPECT_THAT(bridge.log(),
                HasSubstr("connected to " + address(second.port()) + "; sending everything"));
}

TEST(Fallback, GivesWayToTheFirstBrokerWhenItIsLostItself)
{
    Broker first;
    Broker second;
    Tags tags;
    tags.declare("a/b");
    tags.write("a/b", "old");
    BridgeProgram bridge(first.port(), with_fallback(first.port(), second.port()));
    ASSERT_TRUE(wait_until([&] { return kept(first, "p/a/b") == "old"; }));
    first.kill();
    ASSERT_TRUE(wait_until([&] { return kept(second, "p/a/b") == "old"; }));
    first.start();
    tags.write("a/b", "new");
    ASSERT_TRUE(wait_until([&] { return kept(second, "p/a/b") == "new"; }));

    second.kill();

    EXPECT_TRUE(wait_until([&] { return kept(first, "p/a/b") == "new"; }));
}
