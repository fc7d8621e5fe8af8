#include "topic_filter.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

TEST(TagPattern, NeedsALevelBelowForTheRest)
{
    EXPECT_TRUE(pattern_covers("a/#", "a/b"));
    EXPECT_TRUE(pattern_covers("a/#", "a/b/c"));
    EXPECT_FALSE(pattern_covers("a/#", "a"));
    EXPECT_TRUE(pattern_covers("#", "a"));
}

TEST(TagPattern, IgnoresEmptyLevels)
{
    EXPECT_TRUE(pattern_covers("/a//b/", "a/b"));
    EXPECT_TRUE(pattern_covers("a/+", "a//b"));
}

TEST(TagPattern, TakesOnePlusForExactlyOneLevel)
{
    EXPECT_TRUE(pattern_covers("a/+/c", "a/b/c"));
    EXPECT_FALSE(pattern_covers("a/+/c", "a/c"));
    EXPECT_FALSE(pattern_covers("a/+", "a/b/c"));
}

TEST(MqttFilter, CoversTheParentWithTheRest)
{
    EXPECT_TRUE(filter_covers("a/#", "a"));
    EXPECT_TRUE(filter_covers("a/#", "a/b"));
    EXPECT_FALSE(filter_covers("a/#", "ab"));
}

TEST(MqttFilter, CountsEmptyLevels)
{
    EXPECT_TRUE(filter_covers("a/+/b", "a//b"));
    EXPECT_FALSE(filter_covers("a/+", "a"));
    EXPECT_FALSE(filter_covers("a/b", "a/b/"));
}

TEST(Overlap, IsFoundBetweenWildcards)
{
    EXPECT_TRUE(filters_meet("a/+/c", "a/b/+"));
    EXPECT_TRUE(filters_meet("a/#", "+/b/c/d"));
    EXPECT_TRUE(filters_meet("a/#", "a"));
    EXPECT_TRUE(patterns_meet("a/#", "+/b"));
}

TEST(Overlap, IsNotSeenWhereNoNameIsCoveredByBoth)
{
    EXPECT_FALSE(filters_meet("a/+/c", "a/b/d"));
    EXPECT_FALSE(filters_meet("a/+", "a/b/c"));
    EXPECT_FALSE(patterns_meet("a/#", "a"));
    EXPECT_FALSE(patterns_meet("command/#", "plant/#"));
}

TEST(Containment, HoldsOnlyWhereEveryNameIsCovered)
{
    EXPECT_TRUE(pattern_contains("a/#", "a/b/+"));
    EXPECT_TRUE(pattern_contains("a/+", "a/b"));
    EXPECT_FALSE(pattern_contains("a/+", "a/#"));
    EXPECT_FALSE(pattern_contains("a/b", "a/+"));
    EXPECT_FALSE(pattern_contains("a/#", "a"));
}

TEST(Problem, IsFoundInWildcardsThatDoNotStandAlone)
{
    EXPECT_EQ(pattern_problem("a/+x"), "\"+x\" mixes a wildcard with other characters");
    EXPECT_EQ(filter_problem("a/#/b"), "\"#\" must be the last level");
    EXPECT_EQ(pattern_problem("//"), "it names no topic");
    EXPECT_EQ(filter_problem(""), "it is empty");
    EXPECT_EQ(pattern_problem("a/+/#"), "");
}
