#include "topics/pending.h"

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

TEST(PendingNames, LetTheOldestGoFirstBurstOrNot)
{
    PendingNames names;
    names.mark_change("older", kFirstMark);
    names.mark_burst("old", kFirstMark);
    names.mark_change("new", kFirstMark);

    EXPECT_EQ(name_of(names.take(true)), "older");
    EXPECT_EQ(name_of(names.take(true)), "old");
    EXPECT_EQ(name_of(names.take(true)), "new");
}

TEST(PendingNames, LetChangesGoAheadOfABurstThatIsHeldBack)
{
    PendingNames names;
    names.mark_burst("old", kFirstMark);
    names.mark_change("new", kFirstMark);

    EXPECT_EQ(name_of(names.take(false)), "new");
    EXPECT_EQ(name_of(names.take(false)), "none");
}

TEST(PendingNames, LetEachOfNGoAfterNMessages)
{
    PendingNames names;
    for (const char *quiet : {"q1", "q2", "q3"})
        names.mark_burst(quiet, kFirstMark);
    for (const char *busy : {"b1", "b2"})
        names.mark_change(busy, kFirstMark);

    std::string order;
    for (int messages = 0; messages < 5; ++messages) {
        order += name_of(names.take(true)) + ' ';
        names.mark_change("b1", kFirstMark);
        names.mark_change("b2", kFirstMark);
    }

    EXPECT_EQ(order, "q1 q2 q3 b1 b2 ");
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

TEST(PendingNames, JoinTheBurstAtTheirPlaces)
{
    PendingNames names;
    names.mark_burst("old", kFirstMark);
    names.mark_change("changed", kFirstMark);

    names.join_burst();
    names.mark_burst("changed", kFirstMark);
    names.mark_change("new", kFirstMark);

    EXPECT_FALSE(names.has_change("changed"));
    EXPECT_EQ(name_of(names.take(false)), "new");
    EXPECT_EQ(name_of(names.take(false)), "none");
    EXPECT_EQ(name_of(names.take(true)), "old");
    EXPECT_EQ(name_of(names.take(true)), "changed");
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
