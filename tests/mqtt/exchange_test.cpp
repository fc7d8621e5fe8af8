// Values both ways between tags and an independent client.
#include "broker.h"
#include "device.h"
#include "testing/process.h"
#include "testing/store_provider.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::Contains;
using testing::Pair;

using UserProperties = std::map<std::string, std::string>;

namespace {

struct TypeCase {
    uint32_t type;
    const char *text;
    std::string bytes;
};

void PrintTo(const TypeCase &instance, std::ostream *out)
{
    *out << kp_type2str(instance.type);
}

class EveryType : public testing::TestWithParam<TypeCase> {};

std::string all_bytes(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t at = 0; at < size; ++at)
        bytes[at] = static_cast<char>(at);
    return bytes;
}

// All messages until one topic has come so many times.
std::vector<SeenMessage> until_seen(Subscriber &subscriber, const std::string &topic, int times)
{
    std::vector<SeenMessage> messages;
    while (times > 0) {
        const auto message = subscriber.next();
        if (!message)
            break;
        times -= message->topic == topic;
        messages.push_back(*message);
    }
    EXPECT_EQ(times, 0) << topic;
    return messages;
}

// A value that is small itself, beside a long list.
std::string json_of_size(size_t size)
{
    std::string numbers = "{\"value\":1,\"rest\":[1";
    while (numbers.size() < size)
        numbers += ",1";
    return numbers + "]}";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Types, EveryType,
    testing::Values(TypeCase{KP_TYPE_BOOLEAN, "true", bytes_of<uint8_t>(1)},
                    TypeCase{KP_TYPE_INT8, "-128", bytes_of<int8_t>(-128)},
                    TypeCase{KP_TYPE_INT16, "-32768", bytes_of<int16_t>(-32768)},
                    TypeCase{KP_TYPE_INT32, "-2147483648", bytes_of<int32_t>(INT32_MIN)},
                    TypeCase{KP_TYPE_INT64, "-9223372036854775808", bytes_of<int64_t>(INT64_MIN)},
                    TypeCase{KP_TYPE_UINT8, "255", bytes_of<uint8_t>(255)},
                    TypeCase{KP_TYPE_UINT16, "65535", bytes_of<uint16_t>(65535)},
                    TypeCase{KP_TYPE_UINT32, "4294967295", bytes_of<uint32_t>(UINT32_MAX)},
                    TypeCase{KP_TYPE_UINT64, "18446744073709551615",
                             bytes_of<uint64_t>(UINT64_MAX)},
                    TypeCase{KP_TYPE_FLOAT, "0.1", bytes_of(0.1f)},
                    TypeCase{KP_TYPE_DOUBLE, "21.5", bytes_of(21.5)},
                    TypeCase{KP_TYPE_STRING, "gr\xc3\xbc\xc3\x9f\"e\n", "gr\xc3\xbc\xc3\x9f\"e\n"},
                    TypeCase{KP_TYPE_BYTEARRAY, "\xff\x01", "\xff\x01"},
                    TypeCase{KP_TYPE_RAW, "\x80", "\x80"}),
    [](const auto &instance) { return std::string(kp_type2str(instance.param.type)); });

TEST_P(EveryType, GoesOutAndComesIn)
{
    const auto &[type, text, bytes] = GetParam();
    const Broker broker;
    Tags tags;
    tags.declare("a/value", type);
    tags.declare("c/value", type);
    BridgeProgram bridge(broker.port(), kBothWays);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_TRUE(wait_for_connection());

    tags.write("a/value", bytes);
    publish(broker.port(), "s/c/value", text);

    const auto seen = subscriber.next();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->payload, text);
    EXPECT_THAT(seen->user, Contains(Pair("type", kp_type2str(type))));
    EXPECT_TRUE(wait_for_tag("c/value", bytes));
    EXPECT_EQ(read_tag("c/value")->type, type);
}

TEST(Publication, CarriesWhatTheTagSays)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/b", KP_TYPE_DOUBLE);
    BridgeProgram bridge(broker.port(), kBothWays);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_TRUE(wait_for_connection());

    tags.write("a/b", bytes_of(21.5), 3, 1'700'000'000'120'000);

    const auto seen = subscriber.next();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->topic, "p/a/b");
    EXPECT_EQ(seen->qos, 1);
    EXPECT_EQ(seen->properties["content-type"], "text/plain");
    EXPECT_EQ(seen->properties["payload-format-indicator"], 1);
    const UserProperties expected{{"origin", seen->user.at("origin")},
                                  {"q", "3"},
                                  {"sts", "1700000000120000"},
                                  {"ts", std::to_string(read_tag("a/b")->ts)},
                                  {"type", "double"},
                                  {"xi", "7"}};
    EXPECT_EQ(seen->user, expected);
    EXPECT_TRUE(seen->user.at("origin").starts_with("dev/"));
}

TEST(Publication, InJsonCarriesItInTheObject)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/b", KP_TYPE_INT16);
    tags.write("a/b", bytes_of<int16_t>(-5), 2, 17);
    BridgeProgram bridge(broker.port(),
                         "prefix = \"p\"\n[[out]]\npattern = \"a/#\"\npayload = \"json\"\n");
    Subscriber subscriber(broker.port(), "p/a/#");

    const auto seen = subscriber.next();

    ASSERT_TRUE(seen);
    const auto object = nlohmann::json::parse(seen->payload);
    EXPECT_EQ(object["value"], -5);
    EXPECT_EQ(object["quality"], 2);
    EXPECT_EQ(object["source_ts"], 17);
    EXPECT_EQ(seen->properties["content-type"], "application/json");
}

TEST(Publication, ReachesALateJoiner)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/early");
    tags.write("a/early", "before the bridge");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    tags.declare("a/late");
    tags.write("a/late", "after it");
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));

    const auto found = retained(broker.port(), "p/a/#");

    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found.at("p/a/early").payload, "before the bridge");
    EXPECT_EQ(found.at("p/a/late").payload, "after it");
}

TEST(Publication, FindsAProviderThatAnnouncesNothing)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_TRUE(wait_for_connection());

    StoreProvider silent("a/silent");
    silent.write("x");

    const auto seen = subscriber.next();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->topic, "p/a/silent");
}

TEST(Sizes, FromOneByteToTheLargestGoBothWays)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/one", KP_TYPE_RAW);
    tags.declare("a/all", KP_TYPE_RAW);
    tags.write("a/one", std::string(1, '\0'));
    tags.write("a/all", all_bytes(4000));
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    publish(broker.port(), "s/c/one", std::string(1, '\0'));
    publish(broker.port(), "s/c/all", all_bytes(4000));
    publish(broker.port(), "s/c/more", all_bytes(4001));

    EXPECT_TRUE(wait_for_tag("c/one", std::string(1, '\0')));
    EXPECT_TRUE(wait_for_tag("c/all", all_bytes(4000)));
    EXPECT_TRUE(wait_until([] { return status_number("refused") == 1; }));
    EXPECT_THAT(bridge.log(), testing::HasSubstr("the message on s/c/more is refused: is no string "
                                                 "for the tag: it has 4001 bytes of at most 4000"));
    const auto found = retained(broker.port(), "p/a/#");
    EXPECT_EQ(found.at("p/a/one").payload, std::string(1, '\0'));
    EXPECT_EQ(found.at("p/a/all").payload, all_bytes(4000));
}

TEST(Sizes, OfMessagesThatNoTagCanHoldNeverReachTheMemory)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), "prefix = \"p\"\n[[in]]\nfilter = \"c/#\"\n"
                                        "prefix = \"s\"\npayload = \"json\"\n");
    ASSERT_TRUE(wait_for_connection());
    const long before = bridge.memory();

    publish(broker.port(), "s/c/huge", json_of_size(8'000'000));
    publish(broker.port(), "s/c/large", json_of_size(100'000));
    publish(broker.port(), "s/c/small", "17");

    EXPECT_TRUE(wait_for_tag("c/small", "17"));
    EXPECT_FALSE(read_tag("c/huge"));
    EXPECT_FALSE(read_tag("c/large"));
    EXPECT_LT(bridge.memory(), before + 4'000);
    EXPECT_TRUE(wait_until([] { return status_number("refused") == 1; }));
    EXPECT_EQ(bridge.log().find("s/c/huge"), std::string::npos);
}

TEST(OddNames, AreEscapedOnTheWayOut)
{
    const Broker broker;
    Tags tags;
    for (const char *topic :
         {"a/x+y", "a/#", "a/50%", "a/\xff", "a/$sys", "a//double", "a/deep/b/c/d/e"}) {
        tags.declare(topic);
        tags.write(topic, "x");
    }
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 7; }));

    std::vector<std::string> topics;
    for (const auto &[topic, message] : retained(broker.port(), "p/a/#"))
        topics.push_back(topic);

    EXPECT_THAT(topics,
                testing::UnorderedElementsAre("p/a/x%2By", "p/a/%23", "p/a/50%25", "p/a/%FF",
                                              "p/a/$sys", "p/a/double", "p/a/deep/b/c/d/e"));
}

TEST(OddNames, AreRefusedOnTheWayInOrFindAPlace)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    for (const char *topic : {"s/c//x", "s/c/", "s/c/..", "s/c/$x", "s/c/%2Fx"})
        publish(broker.port(), topic, "x");
    publish(broker.port(), "s/c/a/b", "below");
    ASSERT_TRUE(wait_for_tag("c/a/b", "below"));

    publish(broker.port(), "s/c/a", "beside");
    publish(broker.port(), "s/c/x%2By", "plus");

    EXPECT_TRUE(wait_for_tag("c/a/_", "beside"));
    EXPECT_TRUE(wait_for_tag("c/x+y", "plus"));
    EXPECT_TRUE(wait_until([] { return status_number("refused") == 5; }));
}

TEST(OddNames, OfAParentAndItsChildArriveTogetherInEitherOrder)
{
    const Broker broker;
    for (const char *topic : {"s/c/1/b", "s/c/1", "s/c/2", "s/c/2/b"})
        publish(broker.port(), topic, topic, {"-r"});
    BridgeProgram bridge(broker.port(), "prefix = \"p\"\n[[in]]\nfilter = \"c/#\"\n"
                                        "prefix = \"s\"\nretained = true\n");

    EXPECT_TRUE(wait_for_tag("c/1/b", "s/c/1/b"));
    EXPECT_TRUE(wait_for_tag("c/1/_", "s/c/1"));
    EXPECT_TRUE(wait_for_tag("c/2/b", "s/c/2/b"));
    EXPECT_TRUE(wait_for_tag("c/2/_", "s/c/2"));
    EXPECT_TRUE(wait_until([] { return status_number("in") == 4; }));
    EXPECT_EQ(status_number("refused"), 0u);
}

TEST(Commands, ThatTheBrokerKeptAreIgnoredUnlessAskedFor)
{
    const Broker broker;
    publish(broker.port(), "s/c/old", "kept", {"-r"});
    publish(broker.port(), "t/c/old", "kept", {"-r"});
    BridgeProgram bridge(broker.port(), std::string(kBothWays) +
                                            "[[in]]\nfilter = \"#\"\nprefix = \"t\"\n"
                                            "tags = \"t\"\nretained = true\n");

    EXPECT_TRUE(wait_for_tag("t/c/old", "kept"));
    publish(broker.port(), "s/c/new", "sent", {"-r"});
    EXPECT_TRUE(wait_for_tag("c/new", "sent"));
    EXPECT_FALSE(read_tag("c/old"));
}

TEST(Commands, ThatTheBrokerKeptGoToTheMostExactRule)
{
    const Broker broker;
    publish(broker.port(), "s/c/x", "5", {"-r"});
    BridgeProgram bridge(broker.port(), "[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\n"
                                        "[[in]]\nfilter = \"c/x\"\nprefix = \"s\"\n"
                                        "type = \"int32\"\nretained = true\n");

    EXPECT_TRUE(wait_for_tag("c/x", bytes_of<int32_t>(5)));
}

TEST(Commands, KeepTheTypeOfATagThatSomebodyProvides)
{
    const Broker broker;
    Tags tags;
    tags.declare("c/speed", KP_TYPE_UINT8);
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    publish(broker.port(), "s/c/speed", "256");
    publish(broker.port(), "s/c/speed", "fast");
    publish(broker.port(), "s/c/speed", "250",
            {"-D", "publish", "user-property", "q", "4", "-D", "publish", "user-property", "sts",
             "17"});

    EXPECT_TRUE(wait_for_tag("c/speed", bytes_of<uint8_t>(250)));
    EXPECT_EQ(read_tag("c/speed")->quality, 4);
    EXPECT_EQ(read_tag("c/speed")->source_ts, 17u);
    EXPECT_EQ(read_tag("c/speed")->extra_info, 7u);
    EXPECT_TRUE(wait_until([] { return status_number("refused") == 2; }));
}

TEST(Topic, ThatGoesIsClearedAndWhileItsProvidersAreGoneSaysSo)
{
    const Broker broker;
    kp_shm_t *consumer = kp_shm_new("a/held", KP_ROLE_CONSUMER);
    Tags tags;
    tags.declare("a/held");
    tags.declare("a/gone");
    tags.write("a/held", "x");
    tags.write("a/gone", "y");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));
    Subscriber subscriber(broker.port(), "p/a/#");
    (void)subscriber.next();
    (void)subscriber.next();

    tags.drop("a/held");
    const auto held = subscriber.next();
    tags.drop("a/gone");
    const auto gone = subscriber.next();

    ASSERT_TRUE(held && gone);
    EXPECT_EQ(held->payload, "x");
    EXPECT_EQ(held->user.at("q"), "0");
    EXPECT_EQ(gone->topic, "p/a/gone");
    EXPECT_EQ(gone->payload, "");
    EXPECT_EQ(retained(broker.port(), "p/a/#").size(), 1u);
    (void)kp_shm_destroy(consumer, "a/held", KP_ROLE_CONSUMER);
}

TEST(MaxInterval, SendsAValueAgainThatDoesNotChange)
{
    const Broker broker;
    Tags tags;
    tags.declare("a/quiet");
    tags.declare("b/silent");
    tags.write("a/quiet", "x");
    tags.write("b/silent", "y");
    BridgeProgram bridge(broker.port(), "prefix = \"p\"\n[[out]]\npattern = \"a/#\"\n"
                                        "max-interval = 0.2\n[[out]]\npattern = \"b/#\"\n");
    Subscriber subscriber(broker.port(), "p/a/+");

    const auto messages = until_seen(subscriber, "p/a/quiet", 4);

    const std::string written = std::to_string(read_tag("a/quiet")->ts);
    EXPECT_EQ(std::ranges::count_if(
                  messages, [&](const auto &seen) { return seen.user.at("ts") == written; }),
              4); // sent again, not written again
    EXPECT_TRUE(wait_until([] { return status_number("out") >= 4; }));
}

TEST(MaxInterval, DoesNotSendBackWhatCameFromTheBroker)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(),
                         "[[out]]\npattern = \"a/#\"\nprefix = \"tree\"\nmax-interval = 0.2\n"
                         "[[in]]\nfilter = \"a/#\"\nprefix = \"tree\"\nshared = true\n");
    ASSERT_TRUE(wait_for_connection());
    publish(broker.port(), "tree/a/theirs", "x", {"-r"});
    ASSERT_TRUE(wait_for_tag("a/theirs", "x"));
    Tags tags;
    tags.declare("a/ours");
    tags.write("a/ours", "y");
    Subscriber subscriber(broker.port(), "tree/#");

    const auto messages = until_seen(subscriber, "tree/a/ours", 3);

    EXPECT_EQ(std::ranges::count_if(messages,
                                    [](const auto &seen) {
                                        return seen.topic == "tree/a/theirs" &&
                                               seen.user.contains("origin");
                                    }),
              0);
}

TEST(Renaming, TakesTheBeginningOfTagsOffInBothDirections)
{
    const Broker broker;
    Tags tags;
    tags.declare("plant/line/heat");
    tags.write("plant/line/heat", "x");
    BridgeProgram bridge(broker.port(),
                         "[[out]]\npattern = \"plant/line/#\"\ntags = \"plant/line\"\n"
                         "prefix = \"hall\"\n"
                         "[[in]]\nfilter = \"#\"\ntags = \"plant/line\"\nprefix = \"hall\"\n"
                         "shared = true\n");
    ASSERT_TRUE(wait_for_connection());

    EXPECT_TRUE(
        wait_until([&] { return retained(broker.port(), "hall/#").contains("hall/heat"); }));
    publish(broker.port(), "hall/other", "y", {"-r"});
    EXPECT_TRUE(wait_for_tag("plant/line/other", "y"));
    tags.write("plant/line/heat", "z");
    EXPECT_TRUE(
        wait_until([&] { return retained(broker.port(), "hall/#")["hall/heat"].payload == "z"; }));
}
