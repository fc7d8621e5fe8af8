// Commands that wait at the broker while the bridge is away, and answers to commands.
#include "broker.h"
#include "device.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char *kCommands = "prefix = \"p\"\n[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\n"
                                  "type = \"int32\"\nanswers = \"r/#\"\n";
const std::string kFour = "four"; // the bytes of a number that a text has, too
constexpr const char *kFourAsNumber = "1920298854";

std::string keeping(const Broker &broker, const std::string &rules = kCommands)
{
    return configuration(broker.port(), rules, "session-expiry = 3600\n");
}

void ask(const Broker &broker, const std::string &topic, const std::string &payload,
         const std::string &response_topic)
{
    publish(broker.port(), topic, payload,
            {"-D", "publish", "response-topic", response_topic, "-D", "publish", "correlation-data",
             "mine"});
}

} // namespace

TEST(KeptCommands, ArriveAfterTheBridgeWasStopped)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), keeping(broker));
    ASSERT_TRUE(wait_for_connection());
    ASSERT_EQ(bridge.stop(), 0);

    publish(broker.port(), "s/c/speed", "1");
    publish(broker.port(), "s/c/speed", kFourAsNumber);
    bridge.start();

    EXPECT_TRUE(wait_for_tag("c/speed", kFour));
    EXPECT_TRUE(wait_until([] { return status_number("in") == 2; }));
    EXPECT_THAT(bridge.log(), HasSubstr("it keeps commands from now on"));
    EXPECT_THAT(bridge.log(), HasSubstr("the broker has kept the session"));
}

TEST(KeptCommands, ArriveAfterTheBridgeWasKilled)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), keeping(broker));
    ASSERT_TRUE(wait_for_connection());
    bridge.signal(SIGKILL);
    ASSERT_TRUE(bridge.wait());

    publish(broker.port(), "s/c/speed", kFourAsNumber);
    bridge.start();

    EXPECT_TRUE(wait_for_tag("c/speed", kFour));
}

TEST(KeptCommands, AreNoneWithoutASessionExpiry)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kCommands);
    ASSERT_TRUE(wait_for_connection());
    ASSERT_EQ(bridge.stop(), 0);

    publish(broker.port(), "s/c/speed", "1");
    bridge.start();
    ASSERT_TRUE(wait_for_connection());
    publish(broker.port(), "s/c/later", kFourAsNumber);

    EXPECT_TRUE(wait_for_tag("c/later", kFour));
    EXPECT_FALSE(read_tag("c/speed"));
}

TEST(KeptCommands, ThatABrokerHasLostAreSaid)
{
    Broker broker;
    BridgeProgram bridge(broker.port(), keeping(broker));
    ASSERT_TRUE(wait_for_connection());

    broker.kill();
    ASSERT_TRUE(wait_for_connection(false));
    broker.start();

    EXPECT_TRUE(wait_until([&] {
        return bridge.log().find("the broker has not kept the session; commands that were sent "
                                 "while there was no connection are lost") != std::string::npos;
    }));
}

TEST(KeptCommands, LeaveWhatIsSentAsItWas)
{
    Broker broker;
    Tags tags;
    tags.declare("a/one");
    tags.declare("a/changed");
    tags.write("a/one", "x");
    tags.write("a/changed", "y");
    BridgeProgram bridge(
        broker.port(),
        keeping(broker, std::string(kCommands) + "[[out]]\npattern = \"a/#\"\nprefix = \"p\"\n"));
    ASSERT_TRUE(wait_until([] { return status_number("out") == 2; }));
    ASSERT_EQ(bridge.stop(), 0);

    tags.write("a/changed", "z");
    bridge.start();

    EXPECT_TRUE(
        wait_until([&] { return retained(broker.port(), "p/a/#")["p/a/changed"].payload == "z"; }));
}

TEST(AnswersToCommands, SayThatTheTagIsWritten)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kCommands);
    ASSERT_TRUE(wait_for_connection());
    Subscriber asker(broker.port(), "r/#");

    ask(broker, "s/c/speed", kFourAsNumber, "r/one");

    const auto answer = asker.next();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->topic, "r/one");
    EXPECT_EQ(answer->payload, R"({"accepted":true,"topic":"s/c/speed"})");
    EXPECT_EQ(answer->properties["correlation-data"], "mine");
    EXPECT_EQ(answer->properties["content-type"], "application/json");
    EXPECT_TRUE(read_tag("c/speed"));
}

TEST(AnswersToCommands, SayWhyNot)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kCommands);
    ASSERT_TRUE(wait_for_connection());
    Subscriber asker(broker.port(), "r/#");

    ask(broker, "s/c/speed", "fast", "r/one");

    const auto answer = asker.next();
    ASSERT_TRUE(answer);
    const auto said = nlohmann::json::parse(answer->payload);
    EXPECT_EQ(said["accepted"], false);
    EXPECT_THAT(said["reason"].get<std::string>(), HasSubstr("is no int32 for the tag"));
}

TEST(AnswersToCommands, GoOnlyWhereTheRuleAllows)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kCommands);
    ASSERT_TRUE(wait_for_connection());
    Subscriber asker(broker.port(), "#");

    ask(broker, "s/c/speed", "1", "elsewhere");
    ask(broker, "s/c/speed", "2", "r/one");

    const auto answer = asker.next_on("r/one");
    ASSERT_TRUE(answer);
    EXPECT_THAT(bridge.log(), HasSubstr("gets no answer: it asks for one on elsewhere, which its "
                                        "rule does not allow"));
}

TEST(AnswersToCommands, ThatTheBrokerDeniesAreSaid)
{
    std::ofstream("/run/acl") << "topic readwrite s/#\ntopic readwrite p/#\n";
    const Broker broker("allow_anonymous true\nacl_file /run/acl\n");
    BridgeProgram bridge(broker.port(), kCommands);
    ASSERT_TRUE(wait_for_connection());

    ask(broker, "s/c/speed", "1", "r/one");

    EXPECT_TRUE(wait_until([&] {
        return bridge.log().find("the broker does not take the answer on r/one: Not authorized") !=
               std::string::npos;
    }));
}
