#include "inbound/subscription_number.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace kp::mqtt;

namespace {

uint32_t number_beside(const std::string &text, const std::set<uint32_t> &taken)
{
    return subscription_number(text, [&taken](uint32_t number) { return taken.contains(number); });
}

} // namespace

TEST(SubscriptionNumber, IsTheSameInEveryVersion)
{
    EXPECT_EQ(number_beside("s\n#\n", {}), 111123125u);
}

TEST(SubscriptionNumber, GoesOnToTheNextWhereItIsTaken)
{
    const uint32_t first = number_beside("a", {});

    EXPECT_EQ(number_beside("a", {first}), first + 1);
    EXPECT_EQ(number_beside("a", {first, first + 1}), first + 2);
}

TEST(SubscriptionNumber, GoesOnToOneAfterTheLargest)
{
    const std::string text = "504051888"; // found by trying, for its number

    EXPECT_EQ(number_beside(text, {}), kMostSubscriptionNumber);
    EXPECT_EQ(number_beside(text, {kMostSubscriptionNumber}), 1u);
}
