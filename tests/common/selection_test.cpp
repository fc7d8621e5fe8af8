#include "common/names/selection.h"

#include <gtest/gtest.h>

using namespace kp::tool;

namespace {

Selection selected(const std::vector<std::string> &wanted,
                   const std::vector<std::string> &excluded = {})
{
    Selection selection;
    Problem problem;
    EXPECT_TRUE(selection.set(wanted, excluded, problem));
    return selection;
}

} // namespace

TEST(Selection, OfNothingMeansEverything)
{
    EXPECT_TRUE(selected({}).covers("a/b"));
    EXPECT_TRUE(selected({}).may_cover_below("a"));
    EXPECT_FALSE(selected({}).has_only_topics());
}

TEST(Selection, LeavesOutWhatIsExcluded)
{
    const Selection selection = selected({"a/#", "b"}, {"a/secret/#"});

    EXPECT_TRUE(selection.covers("a/x"));
    EXPECT_TRUE(selection.covers("b"));
    EXPECT_FALSE(selection.covers("a/secret/x"));
    EXPECT_FALSE(selection.covers("c"));
    EXPECT_FALSE(selection.may_cover_below("c"));
}

TEST(Selection, CoversNothingBelowWhatIsTooLongForATopic)
{
    const std::string longest(kMostTopicBytes - 2, 'a');

    EXPECT_TRUE(selected({}).may_cover_below(longest));
    EXPECT_FALSE(selected({}).may_cover_below(longest + "a"));
    EXPECT_FALSE(selected({"#"}).may_cover_below(longest + "a"));
}

TEST(Selection, KnowsItsPlainTopics)
{
    EXPECT_EQ(selected({"/a//b"}).single_topic(), "a/b");
    EXPECT_EQ(selected({"a", "b"}).single_topic(), std::nullopt);
    EXPECT_TRUE(selected({"a", "b"}).has_only_topics());
    EXPECT_FALSE(selected({"a", "#"}).has_only_topics());
}

TEST(Selection, RefusesATopicThatCannotExist)
{
    Selection selection;
    Problem problem;

    EXPECT_FALSE(selection.set({"a/../b"}, {}, problem));

    EXPECT_EQ(problem.kind, kUsage);
    EXPECT_EQ(problem.text, "\"a/../b\" is not a topic: a level is \"..\"");
}
