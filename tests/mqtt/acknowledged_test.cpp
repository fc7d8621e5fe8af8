#include "outbound/acknowledged.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

Publication value_of(const std::string &topic, const std::string &payload)
{
    Publication publication;
    publication.topic = topic;
    publication.payload = payload;
    publication.retain = true;
    return publication;
}

void clear(Acknowledged &acknowledged, size_t count)
{
    for (size_t number = 1; number <= count; ++number)
        acknowledged.remember_cleared(std::to_string(number));
}

} // namespace

TEST(Acknowledged, HasNoKeptValueAtFirst)
{
    const Acknowledged acknowledged;

    EXPECT_EQ(acknowledged.last_kept(), nullptr);
}

TEST(Acknowledged, TellsTheLastValueThatIsKept)
{
    Acknowledged acknowledged;
    acknowledged.keep(value_of("a", "x"));
    acknowledged.keep(value_of("b", "y"));

    ASSERT_NE(acknowledged.last_kept(), nullptr);
    EXPECT_EQ(acknowledged.last_kept()->topic, "b");
    EXPECT_EQ(acknowledged.last_kept()->payload, "y");
}

TEST(Acknowledged, ForgetsTheKeptValueWhenItsTopicIsCleared)
{
    Acknowledged acknowledged;
    acknowledged.keep(value_of("a", "x"));

    acknowledged.keep_no_more("a");

    EXPECT_EQ(acknowledged.last_kept(), nullptr);
}

TEST(Acknowledged, KeepsTheValueWhenAnotherTopicIsCleared)
{
    Acknowledged acknowledged;
    acknowledged.keep(value_of("a", "x"));

    acknowledged.keep_no_more("a/b");

    ASSERT_NE(acknowledged.last_kept(), nullptr);
    EXPECT_EQ(acknowledged.last_kept()->topic, "a");
}

TEST(Acknowledged, GivesTheClearedTopicsAwayOnce)
{
    Acknowledged acknowledged;
    acknowledged.remember_cleared("a");
    acknowledged.remember_cleared("b");

    EXPECT_EQ(acknowledged.take_cleared(), (std::deque<std::string>{"a", "b"}));
    EXPECT_TRUE(acknowledged.take_cleared().empty());
}

TEST(Acknowledged, RemembersAThousandClearedTopics)
{
    Acknowledged acknowledged;

    clear(acknowledged, 1000);

    const auto cleared = acknowledged.take_cleared();
    ASSERT_EQ(cleared.size(), 1000u);
    EXPECT_EQ(cleared.front(), "1");
    EXPECT_EQ(cleared.back(), "1000");
}

TEST(Acknowledged, RemembersTheNewestThousandOfMore)
{
    Acknowledged acknowledged;

    clear(acknowledged, 1003);

    const auto cleared = acknowledged.take_cleared();
    ASSERT_EQ(cleared.size(), 1000u);
    EXPECT_EQ(cleared.front(), "4");
    EXPECT_EQ(cleared.back(), "1003");
}
