// Two devices, each with a bridge, join one tree from both ends: one write must make one message.
#include "broker.h"
#include "device.h"
#include "other_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

// One tree, read and written by both.
constexpr const char *kShared = "[[out]]\npattern = \"a/#\"\nprefix = \"tree\"\n"
                                "[[in]]\nfilter = \"a/#\"\nprefix = \"tree\"\nshared = true\n";

// Two trees: what one device sends is what the other receives. Neither bridge sees a loop of its
// own.
constexpr const char *kTowards = "[[out]]\npattern = \"a/#\"\nprefix = \"x\"\n"
                                 "[[in]]\nfilter = \"a/#\"\nprefix = \"y\"\nshared = true\n";
constexpr const char *kBack = "[[out]]\npattern = \"a/#\"\nprefix = \"y\"\n"
                              "[[in]]\nfilter = \"a/#\"\nprefix = \"x\"\nshared = true\n";

} // namespace

TEST(TwoBridges, InOneTreeMakeOneMessageOfOneWrite)
{
    const Broker broker;
    OtherDevice other(broker.port(), kShared);
    BridgeProgram bridge(broker.port(), kShared);
    Tags tags;
    tags.declare("a/mine");
    ASSERT_TRUE(wait_for_connection());
    Subscriber subscriber(broker.port(), "tree/#");

    tags.write("a/mine", "one");

    EXPECT_TRUE(other.does("await a/mine one"));
    EXPECT_EQ(subscriber.until_quiet(1500ms).size(), 1u);
}

TEST(TwoBridges, OnATagThatBothProvideMakeOneMessageOfOneWrite)
{
    const Broker broker;
    OtherDevice other(broker.port(), kShared);
    BridgeProgram bridge(broker.port(), kShared);
    Tags tags;
    tags.declare("a/both");
    ASSERT_TRUE(other.does("declare a/both"));
    ASSERT_TRUE(wait_for_connection());
    Subscriber subscriber(broker.port(), "tree/#");

    tags.write("a/both", "one");
    EXPECT_TRUE(other.does("await a/both one"));
    EXPECT_EQ(subscriber.until_quiet(1s).size(), 1u);

    ASSERT_TRUE(other.does("write a/both two"));
    EXPECT_TRUE(wait_for_tag("a/both", "two"));
    EXPECT_EQ(subscriber.until_quiet(1s).size(), 1u);
}

TEST(TwoBridges, ThroughTwoTreesMakeOneMessageOfOneWrite)
{
    const Broker broker;
    OtherDevice other(broker.port(), kBack);
    BridgeProgram bridge(broker.port(), kTowards);
    Tags tags;
    tags.declare("a/mine");
    ASSERT_TRUE(wait_for_connection());
    Subscriber subscriber(broker.port(), "+/a/#");

    tags.write("a/mine", "one");

    EXPECT_TRUE(other.does("await a/mine one"));
    EXPECT_EQ(subscriber.until_quiet(1500ms).size(), 1u);
}

TEST(TwoBridges, AgreeOnTheNewerValueWhenOneComesBackWithAnOlder)
{
    const Broker broker;
    OtherDevice other(broker.port(), kShared);
    Tags tags;
    tags.declare("a/both");
    tags.write("a/both", "old");
    ASSERT_TRUE(other.does("declare a/both"));
    ASSERT_TRUE(other.does("write a/both new"));
    ASSERT_TRUE(
        wait_until([&] { return retained(broker.port(), "tree/#").contains("tree/a/both"); }));

    BridgeProgram bridge(broker.port(), kShared);

    EXPECT_TRUE(wait_for_tag("a/both", "new"));
    EXPECT_TRUE(wait_until(
        [&] { return retained(broker.port(), "tree/#").at("tree/a/both").payload == "new"; }));
    EXPECT_TRUE(other.does("await a/both new"));
}

TEST(TwoBridges, AnswerAForeignClearingOnceAndOnlyWhereTheTagLives)
{
    const Broker broker;
    OtherDevice other(broker.port(), kShared);
    BridgeProgram bridge(broker.port(), kShared);
    Tags tags;
    tags.declare("a/mine");
    ASSERT_TRUE(wait_for_connection());
    tags.write("a/mine", "one");
    ASSERT_TRUE(other.does("await a/mine one"));
    Subscriber subscriber(broker.port(), "tree/#");
    ASSERT_EQ(subscriber.until_quiet(1s).size(), 1u);

    publish(broker.port(), "tree/a/mine", "", {"-r"});

    const auto messages = subscriber.until_quiet(2s);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].payload, "");
    EXPECT_EQ(messages[1].payload, "one");
    EXPECT_EQ(retained(broker.port(), "tree/#").at("tree/a/mine").payload, "one");
    EXPECT_TRUE(other.does("await a/mine one"));
}

TEST(TwoBridges, ThatBothProvideATagAnswerAForeignClearingOnceEach)
{
    const Broker broker;
    OtherDevice other(broker.port(), kShared);
    BridgeProgram bridge(broker.port(), kShared);
    Tags tags;
    tags.declare("a/both");
    ASSERT_TRUE(other.does("declare a/both"));
    ASSERT_TRUE(wait_for_connection());
    tags.write("a/both", "one");
    ASSERT_TRUE(other.does("await a/both one"));
    Subscriber subscriber(broker.port(), "tree/#");
    ASSERT_EQ(subscriber.until_quiet(1s).size(), 1u);

    publish(broker.port(), "tree/a/both", "", {"-r"});

    const auto messages = subscriber.until_quiet(2s);
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].payload, "");
    EXPECT_EQ(messages[1].payload, "one");
    EXPECT_EQ(messages[2].payload, "one");
    EXPECT_EQ(retained(broker.port(), "tree/#").at("tree/a/both").payload, "one");
}

TEST(Bridge, RefusesAConfigurationThatLoops)
{
    BridgeProgram bridge(1, configuration(1, "[[out]]\npattern = \"a/#\"\nprefix = \"tree\"\n"
                                             "[[in]]\nfilter = \"+/x\"\nprefix = \"tree\"\n"));

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(),
                testing::AllOf(testing::HasSubstr("[[out]] 1"), testing::HasSubstr("[[in]] 1"),
                               testing::HasSubstr("overlap at the broker")));
}
