#include "common/names/pattern.h"

#include <gtest/gtest.h>

using namespace kp::tool;

namespace {

bool covers(std::string_view pattern, std::string_view topic, Dialect dialect)
{
    return Pattern(pattern, dialect).covers(topic);
}

bool meet(std::string_view a, std::string_view b, Dialect dialect)
{
    const bool forth = Pattern(a, dialect).meets(Pattern(b, dialect));
    EXPECT_EQ(forth, Pattern(b, dialect).meets(Pattern(a, dialect)));
    return forth;
}

bool contains(std::string_view outer, std::string_view inner)
{
    return Pattern(outer).contains(Pattern(inner));
}

bool is_more_exact(std::string_view a, std::string_view b)
{
    return Pattern(a, Dialect::mqtt).is_more_exact_than(Pattern(b, Dialect::mqtt));
}

} // namespace

TEST(TagPattern, NeedsALevelBelowForTheRest)
{
    EXPECT_TRUE(covers("a/#", "a/b", Dialect::tags));
    EXPECT_TRUE(covers("a/#", "a/b/c", Dialect::tags));
    EXPECT_FALSE(covers("a/#", "a", Dialect::tags));
    EXPECT_TRUE(covers("#", "a", Dialect::tags));
}

TEST(TagPattern, IgnoresEmptyLevels)
{
    EXPECT_TRUE(covers("/a//b/", "a/b", Dialect::tags));
    EXPECT_TRUE(covers("a/+", "a//b", Dialect::tags));
}

TEST(TagPattern, TakesOnePlusForExactlyOneLevel)
{
    EXPECT_TRUE(covers("a/+/c", "a/b/c", Dialect::tags));
    EXPECT_FALSE(covers("a/+/c", "a/c", Dialect::tags));
    EXPECT_FALSE(covers("a/+", "a/b/c", Dialect::tags));
}

TEST(TagPattern, LooksAtTheFirstCharacterOfALevelOnly)
{
    EXPECT_TRUE(covers("+x/b", "a/b", Dialect::tags));
    EXPECT_TRUE(covers("a/#x", "a/b/c", Dialect::tags));
    EXPECT_FALSE(covers("x+", "xy", Dialect::tags));
}

TEST(TagPattern, TellsWhichDirectoriesAWalkCanLeaveOut)
{
    EXPECT_TRUE(Pattern("a/+/c").may_cover_below("a"));
    EXPECT_TRUE(Pattern("a/+/c").may_cover_below("a/b"));
    EXPECT_FALSE(Pattern("a/+/c").may_cover_below("a/b/c"));
    EXPECT_FALSE(Pattern("a/+/c").may_cover_below("x"));
    EXPECT_TRUE(Pattern("a/#").may_cover_below("a/b/c"));
    EXPECT_TRUE(Pattern("a").may_cover_below(""));
}

TEST(MqttFilter, CoversTheParentWithTheRest)
{
    EXPECT_TRUE(covers("a/#", "a", Dialect::mqtt));
    EXPECT_TRUE(covers("a/#", "a/b", Dialect::mqtt));
    EXPECT_FALSE(covers("a/#", "ab", Dialect::mqtt));
}

TEST(MqttFilter, CountsEmptyLevels)
{
    EXPECT_TRUE(covers("a/+/b", "a//b", Dialect::mqtt));
    EXPECT_FALSE(covers("a/+", "a", Dialect::mqtt));
    EXPECT_FALSE(covers("a/b", "a/b/", Dialect::mqtt));
}

TEST(PatternsMeet, WhereSomeTopicIsCoveredByBoth)
{
    EXPECT_TRUE(meet("a/+/c", "a/b/+", Dialect::mqtt));
    EXPECT_TRUE(meet("a/#", "+/b/c/d", Dialect::mqtt));
    EXPECT_TRUE(meet("a/#", "a", Dialect::mqtt));
    EXPECT_TRUE(meet("a/#", "+/b", Dialect::tags));
    EXPECT_TRUE(meet("#", "+", Dialect::tags));
}

TEST(PatternsMeet, NotWhereNoTopicIsCoveredByBoth)
{
    EXPECT_FALSE(meet("a/+/c", "a/b/d", Dialect::mqtt));
    EXPECT_FALSE(meet("a/+", "a/b/c", Dialect::mqtt));
    EXPECT_FALSE(meet("a/#", "a", Dialect::tags));
    EXPECT_FALSE(meet("command/#", "plant/#", Dialect::tags));
}

TEST(PatternContains, WhatItsWildcardsStandFor)
{
    EXPECT_TRUE(contains("a/#", "a/b/+"));
    EXPECT_TRUE(contains("a/#", "a/#"));
    EXPECT_TRUE(contains("a/+", "a/b"));
    EXPECT_FALSE(contains("a/+", "a/#"));
    EXPECT_FALSE(contains("a/b", "a/+"));
    EXPECT_FALSE(contains("a/#", "a"));
    EXPECT_FALSE(contains("a", "a/b"));
}

TEST(PatternIsMoreExact, WhereItTellsMoreAtTheFirstDifference)
{
    EXPECT_TRUE(is_more_exact("a/b/#", "a/+/c"));
    EXPECT_TRUE(is_more_exact("a/+", "a/#"));
    EXPECT_TRUE(is_more_exact("a", "a/#"));
    EXPECT_FALSE(is_more_exact("a/+/c", "a/b/#"));
    EXPECT_FALSE(is_more_exact("a/b", "a/b"));
}

TEST(PatternProblem, IsAWildcardThatDoesNotStandAlone)
{
    EXPECT_EQ(pattern_problem("a/+x", Dialect::tags),
              "\"+x\" mixes a wildcard with other characters");
    EXPECT_EQ(pattern_problem("a/#/b", Dialect::mqtt), "\"#\" must be the last level");
    EXPECT_EQ(pattern_problem("//", Dialect::tags), "it names no topic");
    EXPECT_EQ(pattern_problem("", Dialect::mqtt), "it is empty");
    EXPECT_EQ(pattern_problem("a/+/#", Dialect::tags), "");
}
