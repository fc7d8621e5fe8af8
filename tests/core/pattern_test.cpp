// Matching topics against patterns.
#include "core/pattern.h"

#include <gtest/gtest.h>
#include <string>

using namespace kp;

namespace {

TEST(Pattern, WithoutWildcardsMatchesTheSameLevels)
{
    EXPECT_EQ(topic_match("a/b", "a/b"), 1);
    EXPECT_EQ(topic_match("a/b", "a/c"), 0);
    EXPECT_EQ(topic_match("a/b", "a"), 0);
    EXPECT_EQ(topic_match("a", "a/b"), 0);
    EXPECT_EQ(topic_match("a/b", "a/bb"), 0);
    EXPECT_EQ(topic_match("a/b", "A/b"), 0);
}

TEST(Pattern, WithAPlusMatchesAnyOneLevel)
{
    EXPECT_EQ(topic_match("a/+/c", "a/b/c"), 1);
    EXPECT_EQ(topic_match("a/+/c", "a/x/c"), 1);
    EXPECT_EQ(topic_match("a/+/c", "a/b/c/d"), 0);
    EXPECT_EQ(topic_match("a/+/c", "a/c"), 0);
    EXPECT_EQ(topic_match("a/+/c", "a/b/d"), 0);
    EXPECT_EQ(topic_match("+", "a"), 1);
    EXPECT_EQ(topic_match("+", "a/b"), 0);
}

TEST(Pattern, WithAPlusNeedsALevelInItsPlace)
{
    EXPECT_EQ(topic_match("a/+", "a"), 0);
    EXPECT_EQ(topic_match("a/+", "a/"), 0);
    EXPECT_EQ(topic_match("+", ""), 0);
}

TEST(Pattern, WithAHashMatchesAllRemainingLevels)
{
    EXPECT_EQ(topic_match("a/#", "a/b"), 1);
    EXPECT_EQ(topic_match("a/#", "a/b/c"), 1);
    EXPECT_EQ(topic_match("a/#", "b/b"), 0);
    EXPECT_EQ(topic_match("#", "a"), 1);
    EXPECT_EQ(topic_match("#", "a/b/c/d/e"), 1);
}

TEST(Pattern, WithAHashNeedsALevelInItsPlace)
{
    EXPECT_EQ(topic_match("a/#", "a"), 0);
    EXPECT_EQ(topic_match("#", ""), 0);
    EXPECT_EQ(topic_match("#", "///"), 0);
}

TEST(Pattern, IsDoneAtAHashWhateverFollows)
{
    EXPECT_EQ(topic_match("a/#/z", "a/b"), 1);
    EXPECT_EQ(topic_match("a/#/z", "a/b/c"), 1);
}

TEST(Pattern, LooksAtTheFirstCharacterOfALevelOnly)
{
    EXPECT_EQ(topic_match("a/+x", "a/b"), 1);
    EXPECT_EQ(topic_match("a/#x", "a/b/c"), 1);
    EXPECT_EQ(topic_match("a/x+", "a/b"), 0);
    EXPECT_EQ(topic_match("a/x#", "a/x/y"), 0);
    EXPECT_EQ(topic_match("a/x+", "a/x+"), 1);
}

TEST(Pattern, IgnoresEmptyLevels)
{
    EXPECT_EQ(topic_match("/a/b", "a/b"), 1);
    EXPECT_EQ(topic_match("a/b", "/a/b"), 1);
    EXPECT_EQ(topic_match("a//b/", "a/b"), 1);
    EXPECT_EQ(topic_match("a/b", "//a///b//"), 1);
    EXPECT_EQ(topic_match("/", ""), 1);
}

TEST(Pattern, MayMatchAnotherPattern)
{
    EXPECT_EQ(topic_match("a/#", "a/+"), 1);
    EXPECT_EQ(topic_match("a/+", "a/#"), 1);
    EXPECT_EQ(topic_match("a/+", "a/+/c"), 0);
}

TEST(Pattern, IsComparedInItsFirst4095Characters)
{
    const std::string common = std::string(2047, 'a') + '/' + std::string(2047, 'b');

    EXPECT_EQ(topic_match((common + "one").c_str(), (common + "two").c_str()), 1);
    EXPECT_EQ(
        topic_match((common.substr(0, 4094) + "x").c_str(), (common.substr(0, 4094) + "y").c_str()),
        0);
    EXPECT_EQ(topic_match((common + "/#").c_str(), common.c_str()), 1);
}

TEST(Pattern, IsATextWithAWildcardAnywhere)
{
    EXPECT_TRUE(is_pattern("a/+"));
    EXPECT_TRUE(is_pattern("#"));
    EXPECT_TRUE(is_pattern("a/x+y/b"));
    EXPECT_FALSE(is_pattern("a/b"));
    EXPECT_FALSE(is_pattern(""));
}

} // namespace
