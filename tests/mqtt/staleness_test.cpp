// Values whose sender, or the way from it, is gone.
#include "broker.h"
#include "device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

const std::string kStale = "quality-when-stale = 64\nsender-state = \"other/+/state\"\n";

bool has_quality(const std::string &tag, int quality)
{
    return wait_until([&] {
        const auto sample = read_tag(tag);
        return sample && sample->quality == quality;
    });
}

void publish_from(const Broker &broker, const std::string &origin, const std::string &topic,
                  const std::string &payload, std::vector<std::string> options = {})
{
    options.insert(options.end(), {"-D", "publish", "user-property", "origin", origin + "/boot"});
    publish(broker.port(), topic, payload, options);
}

} // namespace

TEST(Staleness, OfASenderThatIsOfflineEndsWhenItIsBack)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays + kStale);
    ASSERT_TRUE(wait_for_connection());
    publish_from(broker, "one", "s/c/one", "1");
    publish_from(broker, "two", "s/c/two", "2");
    ASSERT_TRUE(wait_for_tag("c/two", "2"));
    const auto before = read_tag("c/one");
    ASSERT_TRUE(before);

    publish_from(broker, "one", "other/one/state", "offline", {"-r"});
    ASSERT_TRUE(has_quality("c/one", 64));
    EXPECT_EQ(read_tag("c/one")->value, "1");
    EXPECT_EQ(read_tag("c/one")->source_ts, before->source_ts);
    EXPECT_EQ(read_tag("c/two")->quality, 1);
    publish_from(broker, "one", "other/one/state", "online", {"-r"});

    EXPECT_TRUE(has_quality("c/one", 1));
    EXPECT_EQ(read_tag("c/one")->value, "1");
    EXPECT_TRUE(wait_until([] { return status_number("in") == 2; }));
}

TEST(Staleness, IsSaidOfWhatTheBrokerHasKeptOfASenderThatWasGoneBefore)
{
    const Broker broker;
    publish_from(broker, "one", "s/c/one", "1", {"-r"});
    publish_from(broker, "one", "other/one/state", "offline", {"-r"});

    BridgeProgram bridge(broker.port(), kBothWays + kStale + "retained = true\n");

    EXPECT_TRUE(wait_for_tag("c/one", "1"));
    EXPECT_TRUE(has_quality("c/one", 64));
}

TEST(Staleness, OfTheOwnConnectionEndsWithTheNext)
{
    Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays + kStale);
    ASSERT_TRUE(wait_for_connection());
    publish(broker.port(), "s/c/one", "1", {"-D", "publish", "user-property", "q", "7"});
    ASSERT_TRUE(has_quality("c/one", 7));

    broker.kill();
    ASSERT_TRUE(has_quality("c/one", 64));
    broker.start();

    EXPECT_TRUE(has_quality("c/one", 7));
    EXPECT_EQ(read_tag("c/one")->value, "1");
}

TEST(Staleness, LeavesAloneWhatWasWrittenHereSince)
{
    const Broker broker;
    Tags tags;
    tags.declare("c/one");
    BridgeProgram bridge(broker.port(), kBothWays + kStale);
    ASSERT_TRUE(wait_for_connection());
    publish_from(broker, "one", "s/c/one", "1");
    publish_from(broker, "one", "s/c/more", "1");
    ASSERT_TRUE(wait_for_tag("c/one", "1"));
    ASSERT_TRUE(wait_for_tag("c/more", "1"));
    tags.write("c/one", "here", 5);

    publish_from(broker, "one", "other/one/state", "offline", {"-r"});

    EXPECT_TRUE(has_quality("c/more", 64));
    EXPECT_EQ(read_tag("c/one")->value, "here");
    EXPECT_EQ(read_tag("c/one")->quality, 5);
}

TEST(Staleness, InASharedTreeIsNotSentToTheBroker)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), "prefix = \"p\"\n[[out]]\npattern = \"t/#\"\n"
                                        "[[in]]\nfilter = \"t/#\"\nshared = true\n" +
                                            kStale);
    ASSERT_TRUE(wait_for_connection());
    publish_from(broker, "one", "p/t/x", "1", {"-r"});
    ASSERT_TRUE(wait_for_tag("t/x", "1"));
    Subscriber subscriber(broker.port(), "p/t/#");
    (void)subscriber.until_quiet(300ms);

    publish_from(broker, "one", "other/one/state", "offline", {"-r"});
    ASSERT_TRUE(has_quality("t/x", 64));
    publish_from(broker, "one", "other/one/state", "online", {"-r"});
    ASSERT_TRUE(has_quality("t/x", 1));

    EXPECT_THAT(subscriber.until_quiet(1s), testing::IsEmpty());
    EXPECT_EQ(status_number("out"), 0u);
}
