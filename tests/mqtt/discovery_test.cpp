// What the dictionary adds to the messages without a broker: units, deadbands by the range, and
// what Home Assistant is told.
#include "outbound_fixture.h"
#include "testing/store_provider.h"

#include "messages/payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace kptest;
using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

constexpr const char *kNoRate = "burst-rate = 0\n";
constexpr const char *kDiscovery = "discovery = \"homeassistant\"\n";
constexpr const char *kSpeed = "[\"a/speed\"]\nunit = \"1/min\"\ndescription = \"Pump\"\n"
                               "range = [0, 200]\n";
constexpr const char *kSpeedTopic = "homeassistant/sensor/d/a-speed/config";

// What is told in a topic by one of these messages; null when it is not.
json told_in(const std::vector<std::string> &messages, const std::string &mqtt)
{
    for (const std::string &message : messages)
        if (message.starts_with(mqtt + "={"))
            return json::parse(
                message.substr(mqtt.size() + 1, message.rfind(" q=") - mqtt.size() - 1));
    return {};
}

class AnnouncingOutbound : public OutboundOf {
  public:
    explicit AnnouncingOutbound(const std::string &dictionary, const std::string &rule = "")
        : OutboundOf(rule, kNoRate, "", kDiscovery)
    {
        use_dictionary(dictionary);
    }

    // What is told in a topic by what goes out now.
    json told(const std::string &mqtt)
    {
        return told_in(messages_after_scan(), mqtt);
    }
};

void put(const std::string &topic, uint32_t type, const std::string &bytes, uint64_t ts = 1)
{
    ASSERT_EQ(kp_shm_instant_write(topic.c_str(), bytes.data(), type,
                                   static_cast<uint32_t>(bytes.size()), ts, 1, ts, 0),
              0);
}

void put_speed(double value, uint64_t ts)
{
    put("a/speed", KP_TYPE_DOUBLE, bytes_of(value), ts);
}

void put_byte(const std::string &topic, uint32_t type, char value = 1)
{
    put(topic, type, std::string(1, value));
}

void remove_topic(const std::string &topic)
{
    ASSERT_EQ(unlink(("/dev/shm/zu-kp/" + topic).c_str()), 0);
}

} // namespace

TEST(Meanings, UnitIsAPropertyAndAMemberInJson)
{
    put_speed(100, 1);
    OutboundOf with_json("payload = \"json\"\n");
    OutboundOf plain("");
    with_json.use_dictionary(kSpeed);
    plain.use_dictionary(kSpeed);
    with_json.topics().scan(with_json.now());
    plain.topics().scan(plain.now());

    const auto one = with_json->next(with_json.now());
    const auto other = plain->next(plain.now());

    ASSERT_TRUE(one && other);
    EXPECT_EQ(json::parse(one->payload)["unit"], "1/min");
    EXPECT_EQ(property_of(one->properties, property::kUnit), "1/min");
    EXPECT_EQ(property_of(other->properties, property::kUnit), "1/min");
    EXPECT_EQ(other->payload, "100");
}

TEST(Meanings, NoUnitIsSaidWhereThereIsNone)
{
    put_byte("a/other", KP_TYPE_UINT8);
    OutboundOf sent("payload = \"json\"\n");
    sent.use_dictionary("[\"a/other\"]\nunit = \"\"\n");
    sent.topics().scan(sent.now());

    const auto publication = sent->next(sent.now());

    ASSERT_TRUE(publication);
    EXPECT_FALSE(json::parse(publication->payload).contains("unit"));
    EXPECT_THAT(publication->properties, testing::Not(Contains(testing::Key(property::kUnit))));
}

TEST(Meanings, AnotherUnitIsSentAtOnceAndNothingElse)
{
    put_speed(100, 1);
    put_byte("a/other", KP_TYPE_UINT8);
    OutboundOf sent("");
    sent.use_dictionary(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(2));

    sent.use_dictionary("[\"a/speed\"]\nunit = \"Hz\"\n[\"a/other\"]\nstale = 5\n");

    EXPECT_THAT(sent.messages(), ElementsAre("p/a/speed=100 q=1"));
}

TEST(Meanings, DeadbandCanBeAPartOfTheRange)
{
    put_speed(100, 1);
    OutboundOf sent("deadband-of-range = 0.1\n");
    sent.use_dictionary(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), ElementsAre("p/a/speed=100 q=1"));

    put_speed(119, 2);
    EXPECT_THAT(sent.messages_after_scan(), IsEmpty());
    put_speed(121, 3);
    EXPECT_THAT(sent.messages_after_scan(), ElementsAre("p/a/speed=121 q=1"));
}

TEST(Meanings, TheLargerDeadbandCountsAndNoRangeIsNone)
{
    const auto deadband = [](double of_range, double absolute, const std::string &text) {
        const auto file = kp::tool::parse_dictionary_file(text, "f");
        kp::tool::Facts facts;
        if (file.entries.at(0).range)
            facts.range = &*file.entries[0].range;
        Quiet quiet;
        quiet.deadband = absolute;
        quiet.deadband_of_range = of_range;
        return with_range(quiet, facts).deadband;
    };

    EXPECT_EQ(deadband(0.5, 3, "[a]\nrange = [-2, 2]\n"), 3);
    EXPECT_EQ(deadband(0.5, 1, "[a]\nrange = [-2, 2]\n"), 2);
    EXPECT_EQ(deadband(0.5, 1, "[a]\n"), 1);
    EXPECT_EQ(deadband(0.25, 0, "[a]\nrange = [-1e308, 1e308]\n"), 0.5e308);
}

TEST(Discovery, TellsOfEachTagThatIsKnownOnce)
{
    put_speed(100, 1);
    put_byte("a/unknown", KP_TYPE_UINT8);
    AnnouncingOutbound sent(kSpeed);

    const auto messages = sent.messages_after_scan();

    EXPECT_THAT(
        messages,
        UnorderedElementsAre(
            "p/a/speed=100 q=1", "p/a/unknown=1 q=1",
            std::string(kSpeedTopic) +
                R"(={"name":"Pump","unique_id":"d-a-speed","state_topic":"p/a/speed",)"
                R"("availability_topic":"kp/d/$bridge/state","state_class":"measurement",)"
                R"("unit_of_measurement":"1/min","device":{"identifiers":["d"],"name":"d"},)"
                R"("origin":{"name":"kp-mqtt"}} q=d/boot)"));
    put_speed(101, 2);
    EXPECT_THAT(sent.messages_after_scan(), ElementsAre("p/a/speed=101 q=1"));
    EXPECT_TRUE(sent.state().has(kSpeedTopic));
}

TEST(Discovery, IsRetainedJson)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    sent.topics().scan(sent.now());

    const auto value = sent->next(sent.now());
    const auto told = sent->next(sent.now());

    ASSERT_TRUE(value && told);
    EXPECT_EQ(told->topic, kSpeedTopic);
    EXPECT_EQ(std::tuple(told->retain, told->qos, told->expiry_s), std::tuple(true, 1, 0U));
    EXPECT_STREQ(told->content_type, kJson);
}

TEST(Discovery, SaysOfEachKindOfValueHowToReadIt)
{
    put_byte("a/bool", KP_TYPE_BOOLEAN);
    put("a/text", KP_TYPE_STRING, "x");
    put("a/bytes", KP_TYPE_BYTEARRAY, "x");
    put("a/number", KP_TYPE_DOUBLE, bytes_of(1.5));
    const auto said = [](const std::string &rule, const std::string &mqtt) {
        AnnouncingOutbound sent("[\"#\"]\nunit = \"°C\"\n", rule);
        json message = sent.told("homeassistant/" + mqtt + "/config");
        for (const char *key :
             {"name", "unique_id", "state_topic", "availability_topic", "device", "origin"})
            if (message.is_object())
                message.erase(key);
        return message;
    };

    EXPECT_EQ(said("", "binary_sensor/d/a-bool"),
              json({{"payload_on", "true"}, {"payload_off", "false"}}));
    EXPECT_EQ(said("payload = \"json\"\n", "binary_sensor/d/a-bool"),
              json({{"payload_on", "true"},
                    {"payload_off", "false"},
                    {"value_template", "{{ value_json.value | string | lower }}"}}));
    EXPECT_EQ(said("", "sensor/d/a-text"), json::object());
    EXPECT_EQ(said("", "sensor/d/a-number"), json({{"state_class", "measurement"},
                                                   {"device_class", "temperature"},
                                                   {"unit_of_measurement", "°C"}}));
    EXPECT_EQ(said("payload = \"json\"\n", "sensor/d/a-number")["value_template"],
              "{{ value_json.value }}");
    EXPECT_EQ(said("", "sensor/d/a-bytes"), json());
    EXPECT_EQ(said("payload = \"raw\"\n", "sensor/d/a-number"), json());
}

TEST(Discovery, MakesNamesAnEnumeration)
{
    put_byte("a/state", KP_TYPE_INT8);
    put_byte("a/on", KP_TYPE_BOOLEAN);
    AnnouncingOutbound sent(
        "[\"a/state\"]\nunit = \"x\"\nnames = { -1 = \"hä\\\"}}t\", 1 = \"off\" }\n"
        "[\"a/on\"]\nnames = { 0 = \"shut\", 1 = \"open\", 2 = \"no\" }\n",
        "payload = \"json\"\n");

    const auto messages = sent.messages_after_scan();

    const json state = told_in(messages, "homeassistant/sensor/d/a-state/config");
    const json on = told_in(messages, "homeassistant/sensor/d/a-on/config");
    EXPECT_EQ(state["device_class"], "enum");
    EXPECT_EQ(state["options"], json({"hä\"}}t", "off"}));
    EXPECT_EQ(state["value_template"],
              "{{ {\"-1\":\"hä\\\"}}t\",\"1\":\"off\"}[value_json.value | string | lower] | "
              "default(None) }}");
    EXPECT_FALSE(state.contains("state_class"));
    EXPECT_EQ(on["options"], json({"shut", "open"}));
}

TEST(Discovery, GivesTagsOfOnePatternNamesOfTheirOwn)
{
    put_byte("a/1", KP_TYPE_UINT8);
    put_byte("a/2", KP_TYPE_UINT8);
    AnnouncingOutbound sent(
        "[\"a/+\"]\ndescription = \"Air\"\n[\"a/2\"]\ndescription = \"Water\"\n");
    AnnouncingOutbound same("[\"a/+\"]\n");

    EXPECT_EQ(sent.told("homeassistant/sensor/d/a-1/config")["name"], "Air (a/1)");
    EXPECT_EQ(same.told("homeassistant/sensor/d/a-1/config")["name"], "a/1");
    AnnouncingOutbound again("[\"a/+\"]\ndescription = \"Air\"\n"
                             "[\"a/2\"]\ndescription = \"Water\"\n");
    EXPECT_EQ(again.told("homeassistant/sensor/d/a-2/config")["name"], "Water");
}

TEST(Discovery, LetsNoNameLeaveItsPlaceInTheTopic)
{
    put_byte("a/x y_-+\xc3\xa4", KP_TYPE_UINT8);
    AnnouncingOutbound sent("[\"#\"]\n");
    const std::string mqtt = "homeassistant/sensor/d/a-x_20y_5f_2d_2b_c3_a4/config";

    EXPECT_TRUE(sent.told(mqtt).is_object());
    sent.use_dictionary("");
    EXPECT_THAT(sent.messages(), ElementsAre(mqtt + "= q="));
}

TEST(Discovery, LeavesOutANameThatIsTooLongForATopic)
{
    put_byte("a/" + std::string(200, '_') + "/" + std::string(200, '_'), KP_TYPE_UINT8);
    AnnouncingOutbound sent("[\"#\"]\n");

    EXPECT_THAT(sent.messages_after_scan(), SizeIs(1));
}

TEST(Discovery, FollowsTheDictionary)
{
    put_speed(100, 1);
    put_byte("a/other", KP_TYPE_UINT8);
    AnnouncingOutbound sent(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(3));

    sent.use_dictionary(kSpeed + std::string("[\"a/other\"]\n"));
    EXPECT_TRUE(sent.told("homeassistant/sensor/d/a-other/config").is_object());
    sent.use_dictionary("[\"a/speed\"]\nunit = \"1/min\"\n[\"a/other\"]\n");
    EXPECT_EQ(sent.told(kSpeedTopic)["name"], "a/speed");
    sent.use_dictionary("[\"a/other\"]\nstale = 5\n");
    EXPECT_THAT(sent.messages(),
                UnorderedElementsAre("p/a/speed=100 q=1", std::string(kSpeedTopic) + "= q="));
    EXPECT_FALSE(sent.state().has(kSpeedTopic));
}

TEST(Discovery, FollowsTheTypeToAnotherKind)
{
    put_byte("a/x", KP_TYPE_UINT8);
    AnnouncingOutbound sent("[\"#\"]\n");
    ASSERT_TRUE(sent.told("homeassistant/sensor/d/a-x/config").is_object());

    remove_topic("a/x");
    put_byte("a/x", KP_TYPE_BOOLEAN);
    const auto messages = sent.messages_after_scan();

    EXPECT_THAT(messages, Contains("homeassistant/sensor/d/a-x/config= q="));
    EXPECT_THAT(messages,
                Contains(testing::StartsWith("homeassistant/binary_sensor/d/a-x/config={")));
}

TEST(Discovery, KeepsATagThatIsNotThere)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(2));

    remove_topic("a/speed");
    EXPECT_THAT(sent.messages_after_scan(), ElementsAre("p/a/speed= q="));
    sent.use_dictionary("[\"a/speed\"]\nunit = \"Hz\"\n");
    EXPECT_THAT(sent.messages(), IsEmpty());
    put_speed(1, 2);
    EXPECT_EQ(sent.told(kSpeedTopic)["unit_of_measurement"], "Hz");
    remove_topic("a/speed");
    (void)sent.messages_after_scan();
    sent.use_dictionary("[\"a/other\"]\n");
    EXPECT_THAT(sent.messages(), ElementsAre(std::string(kSpeedTopic) + "= q="));
}

TEST(Discovery, KeepsWhatADictionaryWithMistakesMayKnow)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    sent.retained_before("homeassistant/sensor/d/a-late/config");
    sent.retained_before("homeassistant/sensor/d/b-unsent/config");
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(2));

    sent.use_dictionary("", false);
    sent->connected(false, sent.now());

    EXPECT_THAT(
        sent.messages(),
        UnorderedElementsAre("p/a/speed=100 q=1", "homeassistant/sensor/d/b-unsent/config= q="));
    sent.use_dictionary("", true);
    EXPECT_THAT(sent.messages(), UnorderedElementsAre(std::string(kSpeedTopic) + "= q=",
                                                      "homeassistant/sensor/d/a-late/config= q="));
}

TEST(Discovery, OfAnEarlierRunStaysWhileItsTagIsKnown)
{
    put_speed(100, 1);
    AnnouncingOutbound sent("[\"a/+\"]\n");
    sent.retained_before(kSpeedTopic);
    sent.retained_before("homeassistant/sensor/d/a-late/config");
    sent.retained_before("homeassistant/sensor/d/b-unsent/config");
    sent.retained_before("homeassistant/sensor/other/a-late/config");
    sent.retained_before("hass/sensor/d/a-late/config");
    sent.topics().scan(sent.now());

    sent->connected(false, sent.now());

    EXPECT_THAT(
        sent.messages(),
        UnorderedElementsAre(
            "p/a/speed=100 q=1", testing::StartsWith(std::string(kSpeedTopic) + "={"),
            "homeassistant/sensor/d/b-unsent/config= q=",
            "homeassistant/sensor/other/a-late/config= q=", "hass/sensor/d/a-late/config= q="));
    EXPECT_TRUE(sent.state().has("homeassistant/sensor/d/a-late/config"));
}

TEST(Discovery, IsToldAgainToABrokerThatHasLostIt)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(2));

    sent->connection_lost(sent.now());
    sent->connected(true, sent.now());
    EXPECT_THAT(sent.messages(), IsEmpty());
    sent->connection_lost(sent.now());
    sent->connected(false, sent.now());
    EXPECT_THAT(sent.messages(), SizeIs(2));
}

TEST(Discovery, GoesAgainWhenItWasNotAcknowledged)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    sent.topics().scan(sent.now());
    ASSERT_THAT(sent.messages(false), SizeIs(2));

    sent->connection_lost(sent.now());
    sent->connected(true, sent.now());

    EXPECT_THAT(sent.messages(), SizeIs(2));
}

TEST(Discovery, StandsWhenItsClearingIsAcknowledgedLate)
{
    put_speed(100, 1);
    AnnouncingOutbound sent(kSpeed);
    ASSERT_THAT(sent.messages_after_scan(), SizeIs(2));
    sent.use_dictionary("[\"a/speed\"]\nunit = \"1/min\"\n[\"a/x\"]\n");
    (void)sent.messages();

    sent.use_dictionary("[\"a/x\"]\nunit = \"1/min\"\n");
    (void)sent.messages(false); // the value without its unit, and the clearing
    const int clearing = sent.last_id();
    sent.use_dictionary(kSpeed);
    (void)sent.messages(false);
    for (int id = clearing - 1; id <= sent.last_id(); ++id)
        sent->acknowledged(id, {}, sent.now());

    EXPECT_TRUE(sent.state().has(kSpeedTopic));
}
