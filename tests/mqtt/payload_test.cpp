#include "messages/payload.h"

#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

using namespace kp::mqtt;
using nlohmann::json;

namespace {

Sample sample_of(uint32_t type, std::string value)
{
    Sample sample;
    sample.type = type;
    sample.max_size = KP_MAX_VALUE_SIZE;
    sample.extra_info = 7;
    sample.quality = 3;
    sample.has_value = true;
    sample.ts = 1'700'000'000'123'456;
    sample.source_ts = 1'700'000'000'120'000;
    sample.value = std::move(value);
    return sample;
}

template <typename T> Sample sample_of_number(uint32_t type, T value)
{
    return sample_of(type, {reinterpret_cast<const char *>(&value), sizeof value});
}

json object_of(const Sample &sample)
{
    return json::parse(make_payload(PayloadMode::json, "a/b", sample, sample.quality).bytes);
}

kp::tool::Result<Content> taken(PayloadMode mode, std::string_view payload)
{
    Description description;
    return take_apart(mode, payload, description);
}

} // namespace

TEST(PlainPayload, IsReadableTextWhereItCanBe)
{
    const Payload number =
        make_payload(PayloadMode::plain, "a", sample_of_number(KP_TYPE_DOUBLE, 21.5), 1);
    const Payload text =
        make_payload(PayloadMode::plain, "a", sample_of(KP_TYPE_STRING, "gr\xc3\xbc"), 1);
    const Payload other =
        make_payload(PayloadMode::plain, "a", sample_of(KP_TYPE_STRING, "\xff"), 1);
    const Payload bytes = make_payload(PayloadMode::plain, "a", sample_of(KP_TYPE_RAW, "ab"), 1);

    EXPECT_EQ(number.bytes, "21.5");
    EXPECT_STREQ(number.content_type, "text/plain");
    EXPECT_TRUE(number.is_utf8 && text.is_utf8);
    EXPECT_STREQ(other.content_type, "application/octet-stream");
    EXPECT_FALSE(other.is_utf8 || bytes.is_utf8);
    EXPECT_EQ(bytes.bytes, "ab");
}

TEST(RawPayload, IsTheStoredBytes)
{
    const Payload payload =
        make_payload(PayloadMode::raw, "a", sample_of_number<uint16_t>(KP_TYPE_UINT16, 258), 1);

    EXPECT_EQ(payload.bytes, "\x02\x01");
    EXPECT_STREQ(payload.content_type, "application/octet-stream");
}

TEST(JsonPayload, HasEverything)
{
    EXPECT_EQ(object_of(sample_of_number(KP_TYPE_DOUBLE, 21.5)),
              json::parse(R"({"topic":"a/b","type":"double","value":21.5,"quality":3,
                              "ts":1700000000123456,"source_ts":1700000000120000,"size":8,
                              "extra":7})"));
}

TEST(JsonPayload, KeepsWhatJsonCannotSay)
{
    const json text = object_of(sample_of(KP_TYPE_STRING, "\"\n\xff"));
    const json bytes = object_of(sample_of(KP_TYPE_BYTEARRAY, "\xff\x01"));
    const json nan =
        object_of(sample_of_number(KP_TYPE_DOUBLE, std::numeric_limits<double>::quiet_NaN()));

    EXPECT_EQ(text["value_b64"], "Igr/");
    EXPECT_EQ(bytes["value_b64"], "/wE=");
    EXPECT_FALSE(bytes.contains("value"));
    EXPECT_EQ(nan["value"], "nan");
}

TEST(JsonPayload, ShowsAFloatWithoutADoublesDigits)
{
    const auto payload =
        make_payload(PayloadMode::json, "a", sample_of_number(KP_TYPE_FLOAT, 0.1f), 1);

    EXPECT_NE(payload.bytes.find("\"value\":0.1,"), std::string::npos);
}

TEST(Properties, DescribeTheSample)
{
    const UserProperties expected{{"q", "0"},
                                  {"sts", "1700000000120000"},
                                  {"ts", "1700000000123456"},
                                  {"type", "boolean"},
                                  {"xi", "7"}};

    EXPECT_EQ(describing_properties(sample_of_number<uint8_t>(KP_TYPE_BOOLEAN, 1), 0), expected);
}

TEST(Properties, AreReadBackAndNonsenseIgnoredButForTheQuality)
{
    const Description good = describe({{"type", "int16"}, {"q", "3"}, {"sts", "17"}, {"x", "y"}});
    const Description bad = describe({{"type", "int17"}, {"q", "300"}, {"sts", "1x"}});

    EXPECT_EQ(good.type, KP_TYPE_INT16);
    EXPECT_EQ(good.quality, 3);
    EXPECT_EQ(good.source_ts, 17u);
    EXPECT_EQ(good.problem, "");
    EXPECT_FALSE(bad.type || bad.quality || bad.source_ts);
    EXPECT_EQ(bad.problem, "its quality is no number from 0 to 254");
}

TEST(TakenApart, IsAJsonObjectOrABareScalar)
{
    Description description;
    const auto object =
        take_apart(PayloadMode::json, R"({"value":1.5,"quality":2,"source_ts":9,"type":"float"})",
                   description);

    EXPECT_EQ(object.value->data, "1.5");
    EXPECT_EQ(description.quality, 2);
    EXPECT_EQ(description.source_ts, 9u);
    EXPECT_EQ(description.type, KP_TYPE_FLOAT);
    EXPECT_EQ(taken(PayloadMode::json, "true").value->data, "true");
    EXPECT_EQ(taken(PayloadMode::json, "\"t\\u00fcr\"").value->data, "t\xc3\xbcr");
    EXPECT_TRUE(taken(PayloadMode::json, R"({"value_b64":"Zg=="})").value->is_bytes);
}

TEST(TakenApart, SaysWhatIsWrongWithJson)
{
    EXPECT_EQ(taken(PayloadMode::json, "{").problem, "it is no JSON");
    EXPECT_EQ(taken(PayloadMode::json, "[1]").problem, "it is no JSON object or scalar");
    EXPECT_EQ(taken(PayloadMode::json, "null").problem, "it is no JSON object or scalar");
    EXPECT_EQ(taken(PayloadMode::json, "{\"value\":{}}").problem,
              "the JSON object has no \"value\"");
    EXPECT_EQ(taken(PayloadMode::json, "{\"value_b64\":5}").problem, "it is no base64");
}
