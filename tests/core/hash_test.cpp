// The topic hash, which every process must compute alike.
#include "core/dict.h"
#include "layout/notice.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace {

uint32_t largest_hash_of_many_topics()
{
    uint32_t largest = 0;
    for (int number = 0; number < 100'000; ++number)
        largest = std::max(largest, kp_hash(("topic/" + std::to_string(number)).c_str()));
    return largest;
}

TEST(TopicHash, IsThePolynomialOverTheBytes)
{
    EXPECT_EQ(kp_hash(""), 0U);
    EXPECT_EQ(kp_hash("a"), 97U);
    EXPECT_EQ(kp_hash("ab"), 33U);
    EXPECT_EQ(kp_hash("a/b/c"), 840U);
    EXPECT_EQ(kp_hash("plant/pump/1"), 622U);
}

TEST(TopicHash, WrapsAt32BitsInLongTopics)
{
    EXPECT_EQ(kp_hash(std::string(385, 'x').c_str()), 120U);
    EXPECT_EQ(kp_hash(std::string(3999, 'y').c_str()), 409U);
}

TEST(TopicHash, TakesBytesAsUnsigned)
{
    EXPECT_EQ(kp_hash("\xff"), 255U);
    EXPECT_EQ(kp_hash("\xff\xff"), 992U);
}

TEST(TopicHash, DistinguishesCase)
{
    EXPECT_EQ(kp_hash("A"), 65U);
}

TEST(TopicHash, ReachesTheLastBucketAndNeverExceedsIt)
{
    EXPECT_EQ(largest_hash_of_many_topics(), 1023U);
}

TEST(TopicHash, OfNullIsZero)
{
    EXPECT_EQ(kp_hash(nullptr), 0U);
}

TEST(NoticeBit, OfABucketIsCountedFromTheLeastSignificant)
{
    EXPECT_EQ(kp::bitmap_byte(0), 0U);
    EXPECT_EQ(kp::bitmap_bit(0), 0x01);
    EXPECT_EQ(kp::bitmap_byte(97), 12U);
    EXPECT_EQ(kp::bitmap_bit(97), 0x02);
    EXPECT_EQ(kp::bitmap_byte(1023), 127U);
    EXPECT_EQ(kp::bitmap_bit(1023), 0x80);
}

} // namespace
