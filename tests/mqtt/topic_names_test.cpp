#include "names/topic_names.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

TEST(OutboundName, IsTheTagBelowThePrefix)
{
    EXPECT_EQ(to_mqtt_topic("kp/dev", "a/b/c"), "kp/dev/a/b/c");
    EXPECT_EQ(to_mqtt_topic("", "a"), "a");
}

TEST(OutboundName, EscapesWhatMqttForbids)
{
    EXPECT_EQ(to_mqtt_topic("p", "a+b/#c"), "p/a%2Bb/%23c");
    EXPECT_EQ(to_mqtt_topic("p", "50%"), "p/50%25");
    EXPECT_EQ(to_mqtt_topic("p", "line\nfeed"), "p/line%0Afeed");
    EXPECT_EQ(to_mqtt_topic("p", "\xff\xc3\xa4"), "p/%FF\xc3\xa4");
    EXPECT_EQ(to_mqtt_topic("p", "$sys/$x"), "p/%24sys/$x");
}

TEST(OutboundName, DropsEmptyLevelsAndTheOwnValueLevel)
{
    EXPECT_EQ(to_mqtt_topic("p", "/a//b/"), "p/a/b");
    EXPECT_EQ(to_mqtt_topic("p", "a/_"), "p/a");
    EXPECT_EQ(to_mqtt_topic("p", "_"), "p/_");
}

TEST(InboundName, UndoesTheEscapes)
{
    EXPECT_EQ(to_tag_topic("a%2Bb/50%25").text, "a+b/50%");
    EXPECT_EQ(to_tag_topic("%FF").text, "\xff");
    EXPECT_EQ(to_tag_topic("100%/%zz").text, "100%/%zz");
}

TEST(InboundName, ComesBackAsItWent)
{
    EXPECT_EQ(to_tag_topic(to_mqtt_topic("", "$a/b+/\x01/%2B")).text, "$a/b+/\x01/%2B");
}

TEST(InboundName, IsRefusedWhereItCannotBeATag)
{
    EXPECT_EQ(to_tag_topic("a//b").problem, "it has an empty level");
    EXPECT_EQ(to_tag_topic("/a").problem, "it has an empty level");
    EXPECT_EQ(to_tag_topic("a/../b").problem, "a level is \"..\"");
    EXPECT_EQ(to_tag_topic("a/%2E%2E/b").problem, "a level is \"..\"");
    EXPECT_EQ(to_tag_topic("a%2Fb").problem, "a level holds an escaped \"/\"");
    EXPECT_EQ(to_tag_topic("a%00").problem, "a level holds a zero byte");
    EXPECT_EQ(to_tag_topic("a/$b").problem, "a level starts with \"$\"");
    EXPECT_EQ(to_tag_topic("a/%2B").problem, "a level starts like a wildcard");
    EXPECT_EQ(to_tag_topic(std::string(256, 'x')).problem, "a level is longer than 255 bytes");
    EXPECT_EQ(to_tag_topic(std::string(255, 'x')).problem, "");
}

TEST(InboundName, HasNoMoreLevelsThanOneOnTheWayOut)
{
    std::string topic = "x";
    for (size_t level = 1; level < kMostLevels; ++level)
        topic += "/x";

    EXPECT_EQ(to_tag_topic("", "", topic).problem, "");
    EXPECT_EQ(to_tag_topic("", "z", topic).problem, "it has more than 64 levels");
    EXPECT_EQ(to_tag_topic("", "", topic + "/x").problem, "it has more than 64 levels");
}

TEST(InboundName, ExchangesThePrefixes)
{
    EXPECT_EQ(to_tag_topic("kp/dev-set", "", "kp/dev-set/a/b").text, "a/b");
    EXPECT_EQ(to_tag_topic("", "z", "a/b").text, "z/a/b");
    EXPECT_EQ(to_tag_topic("kp", "", "kp").problem, "it is outside of the prefix");
    EXPECT_EQ(to_tag_topic("kp", "", "kpx/a").problem, "it is outside of the prefix");
}

TEST(Prefix, MustBeAPlainTopic)
{
    EXPECT_EQ(mqtt_topic_problem("kp/dev"), "");
    EXPECT_EQ(mqtt_topic_problem("kp/+"), "it has a wildcard");
    EXPECT_EQ(mqtt_topic_problem("kp/\x01"), "it has a control character or is not UTF-8");
}
