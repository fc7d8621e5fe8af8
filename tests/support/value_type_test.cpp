#include "testing/capture.h"

#include "kp.h"

#include <array>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

TEST(TypeOfAName, IsItsCode)
{
    EXPECT_EQ(kp_str2type("boolean"), 0U);
    EXPECT_EQ(kp_str2type("int8"), 1U);
    EXPECT_EQ(kp_str2type("int16"), 2U);
    EXPECT_EQ(kp_str2type("int32"), 3U);
    EXPECT_EQ(kp_str2type("int64"), 4U);
    EXPECT_EQ(kp_str2type("uint8"), 5U);
    EXPECT_EQ(kp_str2type("uint16"), 6U);
    EXPECT_EQ(kp_str2type("uint32"), 7U);
    EXPECT_EQ(kp_str2type("uint64"), 8U);
    EXPECT_EQ(kp_str2type("float"), 9U);
    EXPECT_EQ(kp_str2type("double"), 10U);
    EXPECT_EQ(kp_str2type("string"), 11U);
    EXPECT_EQ(kp_str2type("bytearray"), 12U);
    EXPECT_EQ(kp_str2type("raw"), 13U);
}

TEST(TypeOfAName, IsAllOnesForANameThatDiffersInCase)
{
    EXPECT_EQ(kp_str2type("Boolean"), UINT32_MAX);
}

TEST(TypeOfAName, IsAllOnesForABeginningOrALongerName)
{
    EXPECT_EQ(kp_str2type("uint"), UINT32_MAX);
    EXPECT_EQ(kp_str2type("raw1"), UINT32_MAX);
    EXPECT_EQ(kp_str2type(""), UINT32_MAX);
}

TEST(TypeOfAName, IsSilentAboutAnUnknownName)
{
    StderrCapture log;

    (void)kp_str2type("integer");

    EXPECT_EQ(log.text(), "");
}

TEST(TypeOfAName, ReportsANullName)
{
    StderrCapture log;

    const uint32_t type = kp_str2type(nullptr);

    EXPECT_EQ(type, UINT32_MAX);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_str2type: type_str is null\n\033[0m");
}

TEST(NameOfAType, IsTheConstantOfItsCode)
{
    EXPECT_STREQ(kp_type2str(0), "boolean");
    EXPECT_STREQ(kp_type2str(1), "int8");
    EXPECT_STREQ(kp_type2str(2), "int16");
    EXPECT_STREQ(kp_type2str(3), "int32");
    EXPECT_STREQ(kp_type2str(4), "int64");
    EXPECT_STREQ(kp_type2str(5), "uint8");
    EXPECT_STREQ(kp_type2str(6), "uint16");
    EXPECT_STREQ(kp_type2str(7), "uint32");
    EXPECT_STREQ(kp_type2str(8), "uint64");
    EXPECT_STREQ(kp_type2str(9), "float");
    EXPECT_STREQ(kp_type2str(10), "double");
    EXPECT_STREQ(kp_type2str(11), "string");
    EXPECT_STREQ(kp_type2str(12), "bytearray");
    EXPECT_STREQ(kp_type2str(13), "raw");
}

TEST(NameOfAType, IsNullWithoutAMessageForAnUnknownCode)
{
    StderrCapture log;

    EXPECT_EQ(kp_type2str(14), nullptr);
    EXPECT_EQ(kp_type2str(UINT32_MAX), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(ValueSize, IsFixedByTheTypeWhateverIsAskedFor)
{
    EXPECT_EQ(kp_get_value_size(KP_TYPE_BOOLEAN, 100), 1U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_INT8, 0), 1U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_UINT8, 5000), 1U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_INT16, 100), 2U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_UINT16, 0), 2U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_INT32, 100), 4U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_UINT32, 0), 4U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_FLOAT, 5000), 4U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_INT64, 100), 8U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_UINT64, 0), 8U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_DOUBLE, 5000), 8U);
}

TEST(ValueSize, IsWhatIsAskedForOfAVariableType)
{
    EXPECT_EQ(kp_get_value_size(KP_TYPE_STRING, 0), 0U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_STRING, 1), 1U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_BYTEARRAY, 77), 77U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_RAW, 4000), 4000U);
}

TEST(ValueSize, IsAtMost4000)
{
    EXPECT_EQ(kp_get_value_size(KP_TYPE_STRING, 4001), 4000U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_BYTEARRAY, UINT32_MAX), 4000U);
    EXPECT_EQ(kp_get_value_size(KP_TYPE_RAW, 4001), 4000U);
}

TEST(ValueSize, IsZeroWithAMessageForAnUnknownType)
{
    StderrCapture log;

    const uint32_t size = kp_get_value_size(14, 10);

    EXPECT_EQ(size, 0U);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_get_value_size: value type is invalid\n\033[0m");
}

} // namespace
