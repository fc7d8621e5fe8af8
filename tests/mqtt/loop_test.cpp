// Two devices, each with a bridge, join one tree from both ends: one write must make one message.
#include "broker.h"
#include "device.h"
#include "testing/mounts.h"
#include "testing/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

// One tree, read and written by both.
constexpr const char *kShared = "[[out]]\npattern = \"a/#\"\nprefix = \"tree\"\n"
                                "[[in]]\nfilter = \"a/#\"\nprefix = \"tree\"\nshared = true\n";

// Two trees: what one device sends is what the other receives. Neither bridge sees a loop of its own.
constexpr const char *kTowards = "[[out]]\npattern = \"a/#\"\nprefix = \"x\"\n"
                                 "[[in]]\nfilter = \"a/#\"\nprefix = \"y\"\nshared = true\n";
constexpr const char *kBack = "[[out]]\npattern = \"a/#\"\nprefix = \"y\"\n"
                              "[[in]]\nfilter = \"a/#\"\nprefix = \"x\"\nshared = true\n";

// A device in a process with a store of its own. It understands "write TOPIC TEXT" and "await TOPIC
// TEXT", and answers "done" or "failed".
class OtherDevice {
  public:
    OtherDevice(int port, const std::string &rules)
        : process_([port, rules](Channel &parent) { return live(parent, port, rules); })
    {
        EXPECT_EQ(process_.hear(), "there");
    }
    bool does(const std::string &order)
    {
        return process_.tell(order) && process_.hear(std::chrono::seconds(40)) == "done";
    }

  private:
    static int live(Channel &parent, int port, const std::string &rules)
    {
        enter_private_mounts();
        BridgeProgram bridge(port, configuration(port, rules, "", "other"));
        Tags tags;
        (void)parent.tell(wait_for_connection() ? "there" : "failed");
        while (const auto order = parent.hear(std::chrono::minutes(2))) {
            std::istringstream words(*order);
            std::string verb;
            std::string topic;
            std::string text;
            words >> verb >> topic >> text;
            (void)parent.tell(carry_out(tags, verb, topic, text) ? "done" : "failed");
        }
        return 0;
    }
    static bool carry_out(Tags &tags, const std::string &verb, const std::string &topic,
                          const std::string &text)
    {
        if (verb == "declare")
            tags.declare(topic);
        if (verb == "write")
            tags.write(topic, text);
        return verb != "await" || wait_for_tag(topic, text);
    }

    ChildProcess process_;
};

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
