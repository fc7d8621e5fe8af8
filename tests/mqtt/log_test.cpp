#include "base/log.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {
const Clock::time_point kBegin{std::chrono::hours(1)};

unsigned passing_of(LineBudget &budget, int texts, Clock::time_point now)
{
    unsigned passing = 0;
    for (int text = 0; text < texts; ++text)
        passing += budget.may_pass(std::to_string(text), now);
    return passing;
}
} // namespace

TEST(LineBudget, LetsSoManyLinesPassInAMinute)
{
    LineBudget budget;

    EXPECT_EQ(passing_of(budget, 300, kBegin), LineBudget::kMostLines);
}

TEST(LineBudget, LetsNoTextPassTwiceInAMinute)
{
    LineBudget budget;

    EXPECT_TRUE(budget.may_pass("x", kBegin));
    EXPECT_FALSE(budget.may_pass("x", kBegin));
}

TEST(LineBudget, CountsWhatItLeavesOutAndBeginsAnew)
{
    LineBudget budget;
    (void)passing_of(budget, 2000, kBegin);
    EXPECT_EQ(budget.take_left_out(kBegin + std::chrono::seconds(59)), 0u);

    EXPECT_EQ(budget.take_left_out(kBegin + LineBudget::kTime), 2000 - LineBudget::kMostLines);
    EXPECT_EQ(passing_of(budget, 300, kBegin + LineBudget::kTime), LineBudget::kMostLines);
}
