// A configuration that is read again while the bridge runs.
#include "broker.h"
#include "device.h"
#include "testing/store_provider.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string kMoreRules = std::string(kBothWays) + "[[out]]\npattern = \"b/#\"\n" +
                               "[[in]]\nfilter = \"d/#\"\nprefix = \"s\"\n";

bool has_said(const BridgeProgram &bridge, const std::string &text)
{
    return wait_until([&] { return bridge.log().find(text) != std::string::npos; });
}

std::vector<std::string> topics_of(const std::vector<SeenMessage> &messages)
{
    std::vector<std::string> topics;
    for (const SeenMessage &message : messages)
        topics.push_back(message.topic + "=" + message.payload);
    return topics;
}

} // namespace

TEST(Reload, TakesOverRulesWhileTheConnectionStands)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/x");
    tags.write("a/x", "old");
    tags.declare("b/x");
    tags.write("b/x", "new");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 1; }));
    Subscriber subscriber(broker.port(), "p/#");
    (void)subscriber.until_quiet(300ms);

    bridge.reload(broker.port(), kMoreRules);

    EXPECT_TRUE(has_said(bridge, "has been read again: 2 rules out, 2 rules in"));
    const auto first = subscriber.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->topic + "=" + first->payload, "p/b/x=new");
    EXPECT_THAT(topics_of(subscriber.until_quiet(500ms)), testing::IsEmpty());
    EXPECT_TRUE(wait_until([&] {
        publish(broker.port(), "s/d/x", "1");
        return read_tag("d/x").has_value();
    }));
    EXPECT_EQ(status_number("reconnects"), 0u);
}

TEST(Reload, TakesBackWhatRulesHadBroughtThatAreGone)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/x");
    tags.write("a/x", "1");
    tags.declare("b/x");
    tags.write("b/x", "2");
    BridgeProgram bridge(broker.port(), kMoreRules);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));
    publish(broker.port(), "s/c/x", "1");
    publish(broker.port(), "s/d/x", "1");
    ASSERT_TRUE(wait_for_tag("c/x", "1"));
    ASSERT_TRUE(wait_for_tag("d/x", "1"));
    Subscriber subscriber(broker.port(), "p/b/#");
    (void)subscriber.until_quiet(300ms);

    bridge.reload(broker.port(), kBothWays);

    const auto cleared = subscriber.next_on("p/b/x");
    ASSERT_TRUE(cleared);
    EXPECT_EQ(cleared->payload, "");
    EXPECT_TRUE(wait_until([] { return !read_tag("d/x"); }));
    publish(broker.port(), "s/d/x", "2");
    publish(broker.port(), "s/c/x", "2");
    EXPECT_TRUE(wait_for_tag("c/x", "2"));
    EXPECT_FALSE(read_tag("d/x"));
    EXPECT_EQ(status_number("reconnects"), 0u);
}

TEST(Reload, SendsAgainWhatLooksOtherNow)
{
    const Broker broker;
    StoreProvider provider("a/x", KP_TYPE_DOUBLE);
    provider.write(bytes_of(1.5));
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 1; }));
    Subscriber subscriber(broker.port(), "p/a/#");
    (void)subscriber.until_quiet(300ms);

    bridge.reload(broker.port(),
                  "prefix = \"p\"\n[[out]]\npattern = \"a/#\"\npayload = \"json\"\n");

    const auto message = subscriber.next_on("p/a/x");
    ASSERT_TRUE(message);
    EXPECT_THAT(message->payload, HasSubstr("\"value\":1.5"));
}

TEST(Reload, OfAFileWithMistakesKeepsTheOldRules)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/x");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    bridge.reload(broker.port(), "[[out]]\npattern = \"a/#/b\"\n");

    EXPECT_TRUE(has_said(bridge, "the configuration stays as it was"));
    EXPECT_THAT(bridge.log(), HasSubstr("pattern: is no pattern of tags: \"#\" must be the last"));
    Subscriber subscriber(broker.port(), "p/a/#");
    tags.write("a/x", "still");
    const auto message = subscriber.next_on("p/a/x");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->payload, "still");
    EXPECT_EQ(status_number("reconnects"), 0u);
}

TEST(Reload, GoesToAnotherBroker)
{
    const Broker first;
    const Broker second;
    Tags tags;
    tags.declare("a/x");
    tags.write("a/x", "1");
    BridgeProgram bridge(first.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 1; }));
    Subscriber subscriber(first.port(), "p/$bridge/state");
    (void)subscriber.until_quiet(300ms);

    bridge.reload(second.port(), kBothWays);

    const auto state = subscriber.next();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->payload, "offline");
    EXPECT_TRUE(wait_until([] { return status_number("out") == 2; }));
    EXPECT_EQ(retained(second.port(), "p/a/#")["p/a/x"].payload, "1");
    EXPECT_THAT(bridge.log(), HasSubstr("1 rules in; connecting anew"));
}

TEST(Reload, TriesAtOnceWhereNoBrokerWas)
{
    const Broker broker;
    BridgeProgram bridge(1, kBothWays);
    ASSERT_TRUE(has_said(bridge, "no connection to"));

    bridge.reload(broker.port(), kBothWays);

    EXPECT_TRUE(wait_for_connection());
}

TEST(Reload, OfASharedTreeReadsItAsAWhole)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    publish(broker.port(), "p/t/x", "there", {"-r"});

    bridge.reload(broker.port(), std::string(kBothWays) +
                                     "[[out]]\npattern = \"t/#\"\n"
                                     "[[in]]\nfilter = \"t/#\"\nshared = true\n");

    EXPECT_TRUE(wait_for_tag("t/x", "there"));
    EXPECT_THAT(bridge.log(), HasSubstr("connecting anew"));
}

TEST(Reload, StartsAnewUnderAnotherName)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/x");
    tags.write("a/x", "1");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 1; }));
    Subscriber subscriber(broker.port(), "p/a/#");
    (void)subscriber.until_quiet(300ms);

    bridge.reload(broker.port(), configuration(broker.port(), kBothWays, "", "other"));

    const auto message = subscriber.next_on("p/a/x");
    ASSERT_TRUE(message);
    EXPECT_THAT(message->user.at("origin"), HasSubstr("other/"));
    EXPECT_EQ(bridge.stop(), 0);
}

TEST(Reload, StaysAsItWasWhereTheNewNameIsTaken)
{
    const Broker broker;
    BridgeProgram other(broker.port(), "endpoint = \"taken\"\nstatus-prefix = \"other\"\n" +
                                           std::string(kBothWays));
    ASSERT_TRUE(wait_until([] { return read_tag("other/connected").has_value(); }));
    BridgeProgram bridge(broker.port(), configuration(broker.port(), kBothWays, "", "second"));
    ASSERT_TRUE(wait_for_connection());

    bridge.reload(broker.port(), "device = \"second\"\nendpoint = \"taken\"\n" +
                                     configuration(broker.port(), kBothWays, "", "second")
                                         .substr(std::string("device = \"second\"\n").size()));

    EXPECT_TRUE(has_said(bridge, "a live process has the endpoint taken already"));
    EXPECT_TRUE(has_said(bridge, "the configuration stays as it was"));
    EXPECT_TRUE(wait_for_connection());
    EXPECT_EQ(bridge.stop(), 0);
}

TEST(Reload, IsNotMeantByATerminalThatCloses)
{
    const Broker broker;
    std::ofstream("/run/terminal.conf") << configuration(broker.port(), kBothWays);
    ChildProcess terminal({"/usr/bin/script", "-qc",
                           "exec '" + std::string(bridge_path()) + "' -c /run/terminal.conf",
                           "/dev/null"});
    ASSERT_TRUE(wait_for_connection());

    terminal.signal(SIGKILL);

    EXPECT_TRUE(
        wait_until([] { return access("/dev/shm/zu-kp/bridge/mqtt/connected", F_OK) != 0; }));
}
