// The dictionary of tags in a bridge with a real broker: units, what Home Assistant is told, and
// files that change while it runs and while it does not.
#include "broker.h"
#include "device.h"
#include "testing/bytes.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using nlohmann::json;
using testing::HasSubstr;

namespace {

constexpr const char *kTop = "prefix = \"p\"\nstate-file = \"/run/state\"\n"
                             "dictionary = \"/run/tags\"\n";
constexpr const char *kRule = "[[out]]\npattern = \"a/#\"\n";
constexpr const char *kSpeed = "[\"a/speed\"]\nunit = \"kW\"\ndescription = \"Pump\"\n";
constexpr const char *kSpeedTopic = "homeassistant/sensor/dev/a-speed/config";
constexpr const char *kStateTopic = "homeassistant/sensor/dev/a-state/config";

std::string announcing(const std::string &rule = kRule)
{
    return std::string(kTop) + "discovery = \"homeassistant\"\n" + rule;
}

class BridgeDictionary : public testing::Test {
  protected:
    BridgeDictionary()
    {
        std::filesystem::create_directory("/run/tags");
        write(kSpeed);
    }

    // Another file each time, so that its change is seen however fast it follows.
    static void write(const std::string &text)
    {
        std::ofstream("/run/tags/new") << text;
        std::filesystem::rename("/run/tags/new", "/run/tags/tags.toml");
    }

    // What the next message for Home Assistant in this topic says; null when none comes.
    static json told(Subscriber &subscriber, const std::string &topic = kSpeedTopic)
    {
        const auto message = subscriber.next_on(topic);
        return message && !message->payload.empty() ? json::parse(message->payload) : json();
    }

    // What the broker keeps in a topic, which must be something.
    std::string kept(const std::string &topic) const
    {
        const auto message = Subscriber(broker_.port(), topic).next_on(topic);
        return message && message->retained ? message->payload : "";
    }

    const Broker broker_;
};

std::string payload_of(const std::optional<SeenMessage> &message)
{
    return message ? message->payload : "none came";
}

std::size_t times_said(const BridgeProgram &bridge, const std::string &text)
{
    const std::string log = bridge.log();
    std::size_t count = 0;
    for (std::size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1))
        ++count;
    return count;
}

bool has_said(const BridgeProgram &bridge, const std::string &text)
{
    return wait_until([&] { return times_said(bridge, text) > 0; });
}

} // namespace

TEST_F(BridgeDictionary, AnnouncesATagAndSendsItsUnit)
{
    Tags tags;
    tags.declare("a/speed", KP_TYPE_DOUBLE, 8);
    tags.write("a/speed", bytes_of(1.5));
    Subscriber values(broker_.port(), "p/a/#");
    Subscriber announcements(broker_.port(), "homeassistant/#");

    const BridgeProgram bridge(broker_.port(),
                               announcing(std::string(kRule) + "payload = \"json\"\n"));

    const auto value = values.next_on("p/a/speed");
    ASSERT_TRUE(value);
    EXPECT_EQ(value->user.at("unit"), "kW");
    EXPECT_EQ(json::parse(value->payload)["unit"], "kW");
    const auto announcement = announcements.next_on(kSpeedTopic);
    ASSERT_TRUE(announcement);
    EXPECT_EQ(announcement->qos, 1);
    EXPECT_EQ(json::parse(announcement->payload),
              json::parse(R"({"name": "Pump", "unique_id": "dev-a-speed",
                "state_topic": "p/a/speed", "availability_topic": "p/$bridge/state",
                "value_template": "{{ value_json.value }}", "state_class": "measurement",
                "unit_of_measurement": "kW", "device_class": "power",
                "device": {"identifiers": ["dev"], "name": "dev"},
                "origin": {"name": "kp-mqtt"}})"));
    EXPECT_EQ(kept(kSpeedTopic), announcement->payload);
    EXPECT_EQ(kept("p/$bridge/state"), "online");
}

TEST_F(BridgeDictionary, IsFollowedAtSighupAndKeptWhileAFileHasMistakes)
{
    Tags tags;
    tags.declare("a/speed", KP_TYPE_DOUBLE, 8);
    tags.write("a/speed", bytes_of(1.5));
    Subscriber values(broker_.port(), "p/a/#");
    Subscriber announcements(broker_.port(), "homeassistant/#");
    const BridgeProgram bridge(broker_.port(), announcing());
    ASSERT_EQ(told(announcements)["unit_of_measurement"], "kW");
    ASSERT_EQ(values.next_on("p/a/speed").value_or(SeenMessage{}).user["unit"], "kW");

    write("[\"a/speed\"]\nunit = \"V\"\n");
    bridge.signal(SIGHUP);
    const json other = told(announcements);
    EXPECT_EQ(other["unit_of_measurement"], "V");
    EXPECT_EQ(other["name"], "a/speed");
    EXPECT_EQ(values.next_on("p/a/speed").value_or(SeenMessage{}).user["unit"], "V");

    const std::string mistake = "/run/tags/tags.toml:2:1: \"units\" is not known";
    write("[\"a/speed\"]\nunits = \"A\"\n");
    bridge.signal(SIGHUP);
    EXPECT_TRUE(has_said(bridge, mistake));
    tags.write("a/speed", bytes_of(2.5));
    EXPECT_EQ(values.next_on("p/a/speed").value_or(SeenMessage{}).user["unit"], "V");

    bridge.signal(SIGHUP);
    write("[\"a/speed\"]\nunit = \"Hz\"\n");
    EXPECT_EQ(told(announcements)["unit_of_measurement"], "Hz");
    EXPECT_EQ(times_said(bridge, mistake), 1u);
    EXPECT_EQ(status_number("reconnects"), 0u);
}

TEST_F(BridgeDictionary, KeepsEntitiesOverAStartOfTheDeviceButNotWhatItHasForgotten)
{
    write(std::string(kSpeed) + "[\"a/state\"]\n");
    Subscriber value(broker_.port(), "p/a/state");
    Subscriber speed(broker_.port(), kSpeedTopic);
    Subscriber state(broker_.port(), kStateTopic);
    BridgeProgram bridge(broker_.port(), announcing());
    {
        Tags tags;
        tags.declare("a/speed", KP_TYPE_DOUBLE, 8);
        tags.write("a/speed", bytes_of(1.5));
        tags.declare("a/state", KP_TYPE_UINT8, 1);
        tags.write("a/state", "x");
        ASSERT_TRUE(value.next_on("p/a/state"));
        ASSERT_TRUE(told(speed, kSpeedTopic).is_object());
        ASSERT_TRUE(told(state, kStateTopic).is_object());
        ASSERT_EQ(bridge.stop(), 0);
    }

    bridge.start();
    EXPECT_EQ(payload_of(value.next_on("p/a/state")), "");
    EXPECT_EQ(bridge.stop(), 0);
    EXPECT_NE(kept(kSpeedTopic), "");
    EXPECT_NE(kept(kStateTopic), "");

    write(kSpeed);
    bridge.start();
    EXPECT_EQ(payload_of(state.next_on(kStateTopic)), "");
    EXPECT_EQ(bridge.stop(), 0);
    EXPECT_NE(kept(kSpeedTopic), "");
}

TEST_F(BridgeDictionary, WithdrawsEverythingWhenNobodyIsToBeTold)
{
    Tags tags;
    tags.declare("a/speed", KP_TYPE_DOUBLE, 8);
    tags.write("a/speed", bytes_of(1.5));
    Subscriber announcements(broker_.port(), "homeassistant/#");
    BridgeProgram bridge(broker_.port(), announcing());
    ASSERT_TRUE(told(announcements).is_object());

    bridge.reload(broker_.port(), std::string(kTop) + kRule);

    const auto message = announcements.next_on(kSpeedTopic);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->payload, "");
    EXPECT_EQ(kept("p/a/speed"), "1.5");
}

TEST_F(BridgeDictionary, ShowsInADryRunWhatItAdds)
{
    Tags tags;
    tags.declare("a/speed", KP_TYPE_DOUBLE, 8);
    tags.write("a/speed", bytes_of(1.5));
    BridgeProgram bridge(broker_.port(), announcing(), {"--dry-run"});

    const auto lines = bridge.output();

    ASSERT_EQ(lines.size(), 1u);
    const json line = json::parse(lines[0]);
    EXPECT_EQ(line["unit"], "kW");
    EXPECT_EQ(line["discovery"], kSpeedTopic);
}

TEST_F(BridgeDictionary, NamesItsMistakesInACheckThatPasses)
{
    write("[\"a/speed\"]\nunits = \"A\"\n");
    BridgeProgram bridge(broker_.port(), announcing(), {"--check"});

    EXPECT_EQ(bridge.wait(), 0);
    EXPECT_THAT(bridge.log(), HasSubstr("kp-mqtt: /run/tags/tags.toml:2:1: \"units\""));
}
