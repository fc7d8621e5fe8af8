#include "outbound/unacknowledged.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;
using std::chrono::seconds;

namespace {

const Clock::time_point kStart{};

Publication message(const std::string &topic, const std::string &payload,
                    Clock::time_point since = kStart)
{
    Publication publication;
    publication.topic = topic;
    publication.payload = payload;
    publication.since = since;
    return publication;
}

} // namespace

TEST(Unacknowledged, HasATopicWhileAMessageOfItIsOnItsWay)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x"));
    messages.add(2, message("a", "y"));

    (void)messages.take(1);
    EXPECT_TRUE(messages.has("a"));
    (void)messages.take(2);

    EXPECT_FALSE(messages.has("a"));
}

TEST(Unacknowledged, DoesNotHaveTheTopicsBesideIt)
{
    Unacknowledged messages;

    messages.add(1, message("a", "x"));

    EXPECT_FALSE(messages.has("b"));
    EXPECT_FALSE(messages.has("a/b"));
}

TEST(Unacknowledged, TellsAClearingFromAValue)
{
    Unacknowledged messages;
    messages.add(1, message("value", "x"));
    messages.add(2, message("cleared", ""));

    EXPECT_FALSE(messages.has_clearing_of("value"));
    EXPECT_TRUE(messages.has_clearing_of("cleared"));
    EXPECT_TRUE(messages.has("cleared"));
}

TEST(Unacknowledged, FindsAClearingBesideAValueOfTheTopic)
{
    Unacknowledged messages;
    messages.add(1, message("a", ""));
    messages.add(2, message("a", "x"));

    EXPECT_TRUE(messages.has_clearing_of("a"));
    (void)messages.take(1);

    EXPECT_FALSE(messages.has_clearing_of("a"));
}

TEST(Unacknowledged, TellsTheOldestChangeOnItsWay)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x", kStart + seconds(5)));
    messages.add(2, message("b", "x", kStart + seconds(2)));
    messages.add(3, message("c", "x", kStart + seconds(9)));

    EXPECT_EQ(messages.oldest(), kStart + seconds(2));
    (void)messages.take(2);

    EXPECT_EQ(messages.oldest(), kStart + seconds(5));
}

TEST(Unacknowledged, HasNoOldestChangeWhenAllIsAcknowledged)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x"));

    (void)messages.take(1);

    EXPECT_EQ(messages.oldest(), std::nullopt);
}

TEST(Unacknowledged, GivesAMessageAwayOnce)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x"));

    const auto first = messages.take(1);
    const auto second = messages.take(1);

    ASSERT_TRUE(first);
    EXPECT_EQ(first->topic, "a");
    EXPECT_EQ(first->payload, "x");
    EXPECT_FALSE(second);
}

TEST(Unacknowledged, GivesNothingForAnUnknownId)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x"));

    EXPECT_FALSE(messages.take(2));
    EXPECT_TRUE(messages.has("a"));
}

TEST(Unacknowledged, GivesAllOfThemAwayOnce)
{
    Unacknowledged messages;
    messages.add(1, message("a", "x"));
    messages.add(2, message("b", "y"));

    const auto all = messages.take_all();

    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all.at(1).topic, "a");
    EXPECT_EQ(all.at(2).topic, "b");
    EXPECT_TRUE(messages.take_all().empty());
}
