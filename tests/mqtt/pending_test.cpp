#include "outbound/pending.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;
using std::chrono::seconds;

namespace {
const Clock::time_point kFirstMark{};

std::string name_of(const std::optional<PendingNames::Waiting> &waiting)
{
    return waiting ? waiting->name : "none";
}
} // namespace

TEST(PendingNames, HoldEachNameOnceInTheOrderOfItsFirstMark)
{
    PendingNames names;
    names.mark_change("a", kFirstMark);
    names.mark_change("b", kFirstMark);
    names.mark_change("a", kFirstMark);

    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(name_of(names.take(true)), "a");
    EXPECT_EQ(name_of(names.take(true)), "b");
    EXPECT_EQ(name_of(names.take(true)), "none");
}

TEST(PendingNames, LetChangesGoBeforeTheBurst)
{
    PendingNames names;
    names.mark_burst("old", kFirstMark);
    names.mark_change("new", kFirstMark);

    EXPECT_EQ(name_of(names.take(true)), "new");
    EXPECT_EQ(name_of(names.take(true)), "old");
}

TEST(PendingNames, HoldTheBurstBackWhenToldTo)
{
    PendingNames names;
    names.mark_burst("old", kFirstMark);

    EXPECT_EQ(name_of(names.take(false)), "none");
    EXPECT_TRUE(names.has_burst());
}

TEST(PendingNames, MoveAChangedNameOutOfTheBurst)
{
    PendingNames names;
    names.mark_burst("a", kFirstMark);
    names.mark_change("a", kFirstMark);

    EXPECT_EQ(names.size(), 1u);
    EXPECT_FALSE(names.has_burst());
    EXPECT_EQ(name_of(names.take(false)), "a");
}

TEST(PendingNames, JoinTheBurstInFrontOfIt)
{
    PendingNames names;
    names.mark_burst("old", kFirstMark);
    names.mark_change("changed", kFirstMark);

    names.join_burst();
    names.mark_burst("changed", kFirstMark);
    names.mark_change("new", kFirstMark);

    EXPECT_FALSE(names.has_change("changed"));
    EXPECT_EQ(name_of(names.take(true)), "new");
    EXPECT_EQ(name_of(names.take(false)), "none");
    EXPECT_EQ(name_of(names.take(true)), "changed");
    EXPECT_EQ(name_of(names.take(true)), "old");
}

TEST(PendingNames, KeepTheAgeOfTheFirstMark)
{
    PendingNames names;
    names.mark_change("b", kFirstMark + seconds(5));
    names.mark_burst("a", kFirstMark + seconds(1));
    names.mark_change("a", kFirstMark + seconds(9));

    EXPECT_EQ(names.oldest(), kFirstMark + seconds(1));
}

TEST(PendingNames, AreAsOldAsTheOldestChangeOfTheName)
{
    PendingNames names;
    names.mark_change("a", kFirstMark + seconds(5));

    names.mark_change("a", kFirstMark + seconds(1));

    EXPECT_EQ(names.take(true)->since, kFirstMark + seconds(1));
}
