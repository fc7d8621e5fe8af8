#include "common/values/value_text.h"

#include "testing/bytes.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace kp::tool;
using namespace kptest;

namespace {

std::string converted(uint32_t type, std::string_view text)
{
    return text_bytes(type, text, ByteStyle::hex).value.value_or("refused");
}

std::string why_not(uint32_t type, std::string_view text)
{
    return text_bytes(type, text, ByteStyle::hex).problem;
}

std::string complaint(uint32_t type, std::string_view text)
{
    Problem problem;
    EXPECT_FALSE(parse_value(type, text, ByteStyle::hex, problem));
    EXPECT_EQ(problem.kind, kUsage);
    return problem.text;
}

} // namespace

TEST(PlainText, IsTheShortestThatReadsBack)
{
    EXPECT_EQ(plain_text(KP_TYPE_DOUBLE, bytes_of(21.5)), "21.5");
    EXPECT_EQ(plain_text(KP_TYPE_FLOAT, bytes_of(0.1f)), "0.1");
    EXPECT_EQ(plain_text(KP_TYPE_DOUBLE, bytes_of(0.1)), "0.1");
    EXPECT_EQ(plain_text(KP_TYPE_DOUBLE, bytes_of(-HUGE_VAL)), "-inf");
    EXPECT_EQ(plain_text(KP_TYPE_DOUBLE, bytes_of(std::nan(""))), "nan");
}

TEST(PlainText, CoversEveryWholeNumberToItsEnds)
{
    EXPECT_EQ(plain_text(KP_TYPE_INT8, bytes_of<int8_t>(-128)), "-128");
    EXPECT_EQ(plain_text(KP_TYPE_UINT8, bytes_of<uint8_t>(255)), "255");
    EXPECT_EQ(plain_text(KP_TYPE_INT16, bytes_of<int16_t>(-32768)), "-32768");
    EXPECT_EQ(plain_text(KP_TYPE_UINT16, bytes_of<uint16_t>(65535)), "65535");
    EXPECT_EQ(plain_text(KP_TYPE_INT32, bytes_of<int32_t>(INT32_MIN)), "-2147483648");
    EXPECT_EQ(plain_text(KP_TYPE_UINT32, bytes_of<uint32_t>(UINT32_MAX)), "4294967295");
    EXPECT_EQ(plain_text(KP_TYPE_INT64, bytes_of<int64_t>(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(plain_text(KP_TYPE_UINT64, bytes_of<uint64_t>(UINT64_MAX)), "18446744073709551615");
}

TEST(PlainText, IsTheBytesOfAVariableSize)
{
    EXPECT_EQ(plain_text(KP_TYPE_STRING, "a\xff"), "a\xff");
    EXPECT_EQ(plain_text(KP_TYPE_RAW, "\x01"), "\x01");
    EXPECT_EQ(plain_text(KP_TYPE_BOOLEAN, bytes_of<uint8_t>(2)), "true");
}

TEST(PlainText, IsEmptyForBytesOfAWrongSize)
{
    EXPECT_EQ(plain_text(KP_TYPE_DOUBLE, "1234"), "");
    EXPECT_EQ(plain_text(KP_TYPE_BOOLEAN, ""), "");
}

TEST(ValueText, IsSafeToShow)
{
    EXPECT_EQ(value_text(KP_TYPE_STRING, "a\n\xe2\x80\xae"), "a\\n\\u202e");
    EXPECT_EQ(value_text(KP_TYPE_RAW, "\x01\xff"), "01ff");
    EXPECT_EQ(value_text(KP_TYPE_BYTEARRAY, "foo", ByteStyle::base64), "Zm9v");
    EXPECT_EQ(value_text(KP_TYPE_INT8, bytes_of<int8_t>(-1)), "-1");
}

TEST(TextBytes, TakeWhatTheTypeHolds)
{
    EXPECT_EQ(converted(KP_TYPE_INT8, "-128"), bytes_of<int8_t>(-128));
    EXPECT_EQ(converted(KP_TYPE_UINT64, "18446744073709551615"), bytes_of(UINT64_MAX));
    EXPECT_EQ(converted(KP_TYPE_INT16, "+0x7F"), bytes_of<int16_t>(127));
    EXPECT_EQ(converted(KP_TYPE_DOUBLE, "21"), bytes_of(21.0));
    EXPECT_EQ(converted(KP_TYPE_FLOAT, "-1.5e3"), bytes_of(-1500.0f));
    EXPECT_EQ(converted(KP_TYPE_BOOLEAN, "ON"), bytes_of<uint8_t>(1));
    EXPECT_EQ(converted(KP_TYPE_BOOLEAN, "no"), bytes_of<uint8_t>(0));
    EXPECT_EQ(converted(KP_TYPE_RAW, "01 ff"), "\x01\xff");
    EXPECT_EQ(text_bytes(KP_TYPE_RAW, "01", ByteStyle::plain).value, "01");
}

TEST(TextBytes, SayWhyTheyAreRefused)
{
    EXPECT_EQ(why_not(KP_TYPE_INT8, "128"), "it is out of the type's range");
    EXPECT_EQ(why_not(KP_TYPE_UINT8, "-1"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_INT32, "21.5"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_DOUBLE, "21 "), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_BOOLEAN, "maybe"), "it is no boolean");
    EXPECT_EQ(why_not(KP_TYPE_RAW, "0"), "it is no pairs of hexadecimal digits");
}

TEST(TextBytes, TakeOneSignOnly)
{
    EXPECT_EQ(why_not(KP_TYPE_INT8, "+-1"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_INT8, "0x-1"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_DOUBLE, "+-1"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_INT8, "+"), "it is no value of the type");
    EXPECT_EQ(why_not(KP_TYPE_INT8, "0x"), "it is no value of the type");
}

TEST(CheckedBytes, NeedASizeThatTheTypeTakes)
{
    EXPECT_TRUE(checked_bytes(KP_TYPE_INT32, 0, "1234"));
    EXPECT_EQ(checked_bytes(KP_TYPE_INT32, 0, "123").problem,
              "it has 3 bytes, the type another number");
    EXPECT_EQ(checked_bytes(KP_TYPE_STRING, 3, "four").problem, "it has 4 bytes of at most 3");
    EXPECT_EQ(checked_bytes(KP_TYPE_STRING, 3, "").problem, "it is empty");
}

TEST(ParseValue, ComplainsInWholeSentences)
{
    EXPECT_EQ(complaint(KP_TYPE_INT8, "128"), "\"128\" is not int8 in its range");
    EXPECT_EQ(complaint(KP_TYPE_BOOLEAN, "\x1b"), "\"\\x1b\" is not true or false");
    EXPECT_EQ(complaint(KP_TYPE_RAW, "0g"), "\"0g\" is not pairs of hexadecimal digits");
    EXPECT_EQ(complaint(KP_TYPE_STRING, ""), "an empty value cannot be stored");
    EXPECT_EQ(complaint(KP_TYPE_STRING, std::string(4001, 'x')),
              "a value of 4001 bytes is longer than the largest, 4000");
}

TEST(CompareValues, FollowsTheOrderOfTheType)
{
    EXPECT_EQ(compare_values(KP_TYPE_INT8, bytes_of<int8_t>(-1), bytes_of<int8_t>(1)), -1);
    EXPECT_EQ(compare_values(KP_TYPE_UINT8, "\xff", "\x01"), 1);
    EXPECT_EQ(compare_values(KP_TYPE_DOUBLE, bytes_of(0.5), bytes_of(0.5)), 0);
    EXPECT_EQ(compare_values(KP_TYPE_STRING, "a", "b"), -1);
    EXPECT_EQ(compare_values(KP_TYPE_BOOLEAN, "\x02", "\x01"), 0);
    EXPECT_EQ(compare_values(KP_TYPE_DOUBLE, bytes_of(std::nan("")), bytes_of(1.0)), std::nullopt);
}

TEST(AsDouble, ReadsEveryFixedSize)
{
    EXPECT_EQ(as_double(KP_TYPE_INT16, bytes_of<int16_t>(-3)), -3.0);
    EXPECT_EQ(as_double(KP_TYPE_FLOAT, bytes_of(1.5f)), 1.5);
    EXPECT_EQ(as_double(KP_TYPE_BOOLEAN, "\x01"), 1.0);
}
