#include "common/names/topic_name.h"

#include <gtest/gtest.h>

using namespace kp::tool;

TEST(Levels, OfATagHaveNoEmptyOnes)
{
    EXPECT_EQ(split_levels("/a//b/"), (Levels{"a", "b"}));
    EXPECT_EQ(split_levels(""), Levels{});
}

TEST(Levels, OfAnMqttTopicCountEmptyOnes)
{
    EXPECT_EQ(split_levels("/a//b", Dialect::mqtt), (Levels{"", "a", "", "b"}));
    EXPECT_EQ(split_levels("", Dialect::mqtt), Levels{""});
}

TEST(Levels, AreJoinedWithASlashWhereBothAreGiven)
{
    EXPECT_EQ(join_levels("a", "b"), "a/b");
    EXPECT_EQ(join_levels("", "b"), "b");
    EXPECT_EQ(join_levels("a", ""), "a");
}

TEST(NormalTopic, HasSingleSlashesBetweenItsLevels)
{
    Problem problem;

    EXPECT_EQ(normal_topic("//a///b/", problem), "a/b");
}

TEST(NormalTopic, IsRefusedWhereItCannotBeAFile)
{
    Problem problem;

    EXPECT_FALSE(normal_topic("a/./b", problem));
    EXPECT_EQ(problem.text, "\"a/./b\" is not a topic: a level is \".\"");
    EXPECT_FALSE(normal_topic("/", problem));
    EXPECT_EQ(problem.text, "a topic needs at least one level");
    EXPECT_FALSE(normal_topic(std::string(256, 'x'), problem));
    EXPECT_EQ(problem.text,
              "\"" + std::string(256, 'x') + "\" is not a topic: a level is longer than 255 bytes");
}

TEST(NormalTopic, HasAtMostTheBytesOfAPath)
{
    std::string topic = std::string(200, 'x');
    for (int level = 0; level < 18; ++level)
        topic += '/' + std::string(200, 'x');
    Problem problem;

    EXPECT_TRUE(normal_topic(topic, problem));
    EXPECT_FALSE(normal_topic(topic + '/' + std::string(200, 'x'), problem));

    EXPECT_EQ(problem.text, "a topic is longer than 4000 bytes");
}
