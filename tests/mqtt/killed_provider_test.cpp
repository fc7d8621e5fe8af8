// A provider that is killed cannot take its count back; the bridge tells it from one that is
// silent.
#include "broker.h"
#include "device.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

// So that the tests do as well where not every process of the machine can be looked into.
const std::string kTrusting = "trust-visible = true\n" + std::string(kBothWays);

// Provides a/b and writes what it is told.
class ProviderProcess {
  public:
    ProviderProcess() : process_(provide)
    {
        EXPECT_EQ(process_.hear(), "there");
    }
    void write(const std::string &value)
    {
        (void)process_.tell(value);
        EXPECT_EQ(process_.hear(), "written");
    }
    void kill()
    {
        process_.signal(SIGKILL);
        EXPECT_EQ(process_.wait(), 128 + SIGKILL);
    }

  private:
    static int provide(Channel &parent)
    {
        kp_t *handle = kp_new("", nullptr);
        kp_tag_t *tag = kp_tag_provider_new(handle, "a/b", KP_TYPE_STRING, 100, 0);
        (void)parent.tell(tag ? "there" : "failed");
        while (const auto value = parent.hear(std::chrono::minutes(2))) {
            const bool written =
                kp_tag_write(handle, tag, value->data(), static_cast<uint32_t>(value->size())) > 0;
            (void)kp_tag_notify(handle);
            (void)parent.tell(written ? "written" : "failed");
        }
        return 0;
    }

    ChildProcess process_;
};

// Follows a/b.
class ConsumerProcess {
  public:
    ConsumerProcess()
        : process_([](Channel &parent) {
              kp_shm_t *shm = kp_shm_new("a/b", KP_ROLE_CONSUMER);
              (void)parent.tell(shm ? "there" : "failed");
              (void)parent.hear(std::chrono::minutes(2));
              return 0;
          })
    {
        EXPECT_EQ(process_.hear(), "there");
    }
    void kill()
    {
        process_.signal(SIGKILL);
        EXPECT_EQ(process_.wait(), 128 + SIGKILL);
    }

  private:
    ChildProcess process_;
};

// Waits until the bridge has looked at all processes and found so many handles on the topic.
bool has_found_handles(const BridgeProgram &bridge, int count)
{
    const std::string text = "the topics have " + std::to_string(count) + " open handles";
    return wait_until([&] {
        const std::string log = bridge.log();
        const size_t last = log.rfind("the topics have ");
        return last != log.npos && log.compare(last, text.size(), text) == 0;
    });
}

std::string quality_of(const SeenMessage &message)
{
    return message.payload + " " + message.user.at("q");
}

// The next message with a value: there is one that clears between the end of a provider and the
// first value of the next.
std::string next_value(Subscriber &subscriber)
{
    auto message = subscriber.next_on("p/a/b");
    while (message && message->payload.empty())
        message = subscriber.next_on("p/a/b");
    return message ? quality_of(*message) : "none";
}

} // namespace

TEST(KilledProvider, IsToldByTheQualityUntilItComesBack)
{
    const Broker broker;
    ProviderProcess provider;
    provider.write("x");
    BridgeProgram bridge(broker.port(), kTrusting);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_EQ(next_value(subscriber), "x 1");

    provider.kill();
    EXPECT_EQ(next_value(subscriber), "x 0");
    EXPECT_EQ(quality_of(retained(broker.port(), "p/a/#").at("p/a/b")), "x 0");

    ProviderProcess again;
    again.write("y");
    EXPECT_EQ(next_value(subscriber), "y 1");

    again.kill();
    EXPECT_EQ(next_value(subscriber), "y 0");
}

TEST(KilledProvider, IsToldWhileAConsumerThatCameLaterLives)
{
    const Broker broker;
    ProviderProcess provider;
    provider.write("x");
    BridgeProgram bridge(broker.port(), kTrusting);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_EQ(next_value(subscriber), "x 1");
    ASSERT_TRUE(has_found_handles(bridge, 1));
    ConsumerProcess consumer;
    ASSERT_TRUE(has_found_handles(bridge, 2));

    provider.kill();
    EXPECT_EQ(next_value(subscriber), "x 0");

    ProviderProcess again;
    again.write("y");
    EXPECT_EQ(next_value(subscriber), "y 1");
}

TEST(KilledProvider, IsNotToldOfATopicThatASecondOneProvides)
{
    const Broker broker;
    ProviderProcess provider;
    ProviderProcess second;
    second.write("x");
    BridgeProgram bridge(broker.port(), kTrusting);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_EQ(next_value(subscriber), "x 1");
    ASSERT_TRUE(has_found_handles(bridge, 2));

    provider.kill();
    ASSERT_TRUE(has_found_handles(bridge, 1));
    second.write("y");

    EXPECT_EQ(next_value(subscriber), "y 1");
}

TEST(KilledConsumer, LeavesTheQualityAsItIs)
{
    const Broker broker;
    ProviderProcess provider;
    ConsumerProcess consumer;
    provider.write("x");
    BridgeProgram bridge(broker.port(), kTrusting);
    Subscriber subscriber(broker.port(), "p/a/#");
    ASSERT_EQ(next_value(subscriber), "x 1");
    ASSERT_TRUE(has_found_handles(bridge, 2));

    consumer.kill();
    ASSERT_TRUE(has_found_handles(bridge, 1));
    provider.write("y");

    EXPECT_EQ(next_value(subscriber), "y 1");
}
