#include "common/values/value_json.h"

#include "testing/bytes.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace kp::tool;
using namespace kptest;
using nlohmann::json;

namespace {

std::string json_complaint(uint32_t type, const json &value)
{
    Problem problem;
    EXPECT_FALSE(parse_json_value(type, value, ByteStyle::hex, problem));
    EXPECT_EQ(problem.kind, kUsage);
    return problem.text;
}

} // namespace

TEST(ValueJson, HasTheKindOfTheType)
{
    EXPECT_EQ(value_json(KP_TYPE_BOOLEAN, "\x01").dump(), "true");
    EXPECT_EQ(value_json(KP_TYPE_FLOAT, bytes_of(0.1f)).dump(), "0.1");
    EXPECT_EQ(value_json(KP_TYPE_UINT64, bytes_of(UINT64_MAX)).dump(), "18446744073709551615");
    EXPECT_EQ(value_json(KP_TYPE_STRING, "a\"b").dump(), "\"a\\\"b\"");
    EXPECT_EQ(value_json(KP_TYPE_RAW, "\xff").dump(), "\"ff\"");
}

TEST(ValueJson, GivesWhatJsonLacksAsStrings)
{
    EXPECT_EQ(value_json(KP_TYPE_DOUBLE, bytes_of(std::nan(""))).dump(), "\"nan\"");
    EXPECT_EQ(value_json(KP_TYPE_FLOAT, bytes_of(-HUGE_VALF)).dump(), "\"-inf\"");
}

TEST(JsonValue, IsReadIntoTheType)
{
    Problem problem;

    EXPECT_EQ(parse_json_value(KP_TYPE_INT8, json(-5), ByteStyle::hex, problem),
              bytes_of<int8_t>(-5));
    EXPECT_EQ(parse_json_value(KP_TYPE_DOUBLE, json("nan"), ByteStyle::hex, problem)->size(), 8u);
    EXPECT_EQ(parse_json_value(KP_TYPE_BOOLEAN, json(true), ByteStyle::hex, problem), "\x01");
}

TEST(JsonValue, IsRefusedWhereItDoesNotFit)
{
    EXPECT_EQ(json_complaint(KP_TYPE_STRING, json(5)), "5 is not a string");
    EXPECT_EQ(json_complaint(KP_TYPE_INT8, json(true)), "true is not int8 in its range");
    EXPECT_EQ(json_complaint(KP_TYPE_INT8, json(1.5)), "\"1.5\" is not int8 in its range");
    EXPECT_EQ(json_complaint(KP_TYPE_DOUBLE, json::array()), "[] is not double in its range");
}
