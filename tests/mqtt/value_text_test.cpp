#include "value_text.h"

#include "testing/store_provider.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>

using namespace kp::mqtt;
using namespace kptest;

namespace {

std::string converted(uint32_t type, std::string_view text)
{
    return value_bytes(type, KP_MAX_VALUE_SIZE, text).value.value_or("refused");
}

} // namespace

TEST(ValueText, IsTheShortestThatReadsBack)
{
    EXPECT_EQ(value_text(KP_TYPE_DOUBLE, bytes_of(21.5)), "21.5");
    EXPECT_EQ(value_text(KP_TYPE_FLOAT, bytes_of(0.1f)), "0.1");
    EXPECT_EQ(value_text(KP_TYPE_DOUBLE, bytes_of(0.1)), "0.1");
    EXPECT_EQ(value_text(KP_TYPE_DOUBLE, bytes_of(std::numeric_limits<double>::infinity())), "inf");
}

TEST(ValueText, CoversEveryWholeNumberToItsEnds)
{
    EXPECT_EQ(value_text(KP_TYPE_INT8, bytes_of<int8_t>(-128)), "-128");
    EXPECT_EQ(value_text(KP_TYPE_UINT8, bytes_of<uint8_t>(255)), "255");
    EXPECT_EQ(value_text(KP_TYPE_INT16, bytes_of<int16_t>(-32768)), "-32768");
    EXPECT_EQ(value_text(KP_TYPE_UINT16, bytes_of<uint16_t>(65535)), "65535");
    EXPECT_EQ(value_text(KP_TYPE_INT32, bytes_of<int32_t>(INT32_MIN)), "-2147483648");
    EXPECT_EQ(value_text(KP_TYPE_UINT32, bytes_of<uint32_t>(UINT32_MAX)), "4294967295");
    EXPECT_EQ(value_text(KP_TYPE_INT64, bytes_of<int64_t>(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(value_text(KP_TYPE_UINT64, bytes_of<uint64_t>(UINT64_MAX)), "18446744073709551615");
}

TEST(ValueText, IsTheBytesOfAVariableSize)
{
    EXPECT_EQ(value_text(KP_TYPE_STRING, "a\xff"), "a\xff");
    EXPECT_EQ(value_text(KP_TYPE_BOOLEAN, bytes_of<uint8_t>(1)), "true");
}

TEST(ValueText, IsEmptyForBytesOfAWrongSize)
{
    EXPECT_EQ(value_text(KP_TYPE_DOUBLE, "1234"), "");
}

TEST(ValueFromText, TakesWhatTheTypeHolds)
{
    EXPECT_EQ(converted(KP_TYPE_INT8, "-128"), bytes_of<int8_t>(-128));
    EXPECT_EQ(converted(KP_TYPE_UINT64, "18446744073709551615"), bytes_of(UINT64_MAX));
    EXPECT_EQ(converted(KP_TYPE_DOUBLE, "21"), bytes_of(21.0));
    EXPECT_EQ(converted(KP_TYPE_FLOAT, "-1.5e3"), bytes_of(-1500.0f));
    EXPECT_EQ(converted(KP_TYPE_BOOLEAN, "ON"), bytes_of<uint8_t>(1));
    EXPECT_EQ(converted(KP_TYPE_BOOLEAN, "false"), bytes_of<uint8_t>(0));
}

TEST(ValueFromText, SaysWhyItRefuses)
{
    EXPECT_EQ(value_bytes(KP_TYPE_INT8, 0, "128").problem, "it is out of the type's range");
    EXPECT_EQ(value_bytes(KP_TYPE_UINT8, 0, "-1").problem, "it is no value of the type");
    EXPECT_EQ(value_bytes(KP_TYPE_INT32, 0, "21.5").problem, "it is no value of the type");
    EXPECT_EQ(value_bytes(KP_TYPE_DOUBLE, 0, "21 ").problem, "it is no value of the type");
    EXPECT_EQ(value_bytes(KP_TYPE_BOOLEAN, 0, "maybe").problem, "it is no boolean");
    EXPECT_EQ(value_bytes(KP_TYPE_STRING, 3, "four").problem, "it has 4 bytes of at most 3");
    EXPECT_EQ(value_bytes(KP_TYPE_STRING, 3, "").problem, "it is empty");
}

TEST(ValueFromBytes, NeedsTheTypesSize)
{
    EXPECT_TRUE(checked_bytes(KP_TYPE_INT32, 0, "1234"));
    EXPECT_EQ(checked_bytes(KP_TYPE_INT32, 0, "123").problem,
              "it has 3 bytes, the type another number");
}

TEST(Base64, ComesBackAsItWent)
{
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(from_base64("Zm8=").value, "fo");
    EXPECT_EQ(from_base64(base64("\x00\xff\x10\x80")).value, std::string("\x00\xff\x10\x80"));
}

TEST(Base64, IsRefusedWhenMalformed)
{
    EXPECT_FALSE(from_base64("Zg="));
    EXPECT_FALSE(from_base64("Z==="));
    EXPECT_FALSE(from_base64("Z!==").value.has_value());
    EXPECT_FALSE(from_base64("Zg==Zg=="));
}
