// What others can do to the bridge from outside, and how it shows what became of it.
#include "broker.h"
#include "device.h"
#include "testing/process.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kptest;
using namespace std::chrono_literals;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

constexpr const char *kNumbers = "[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\ntype = \"int32\"\n";

size_t lines_with(const std::string &log, const std::string &text)
{
    size_t count = 0;
    for (size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1))
        ++count;
    return count;
}

bool exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

// How many connections to endpoints of others this process has, counted at its own end of each.
int connections_to_endpoints()
{
    int count = 0;
    for (const auto &[fd, target] : open_descriptors()) {
        sockaddr_un peer{};
        socklen_t size = sizeof peer;
        count += target.starts_with("socket:") &&
                 getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
                 peer.sun_family == AF_UNIX &&
                 std::string(peer.sun_path).starts_with("/run/providers/");
    }
    return count;
}

} // namespace

TEST(Refusals, FillNoLogButAreCounted)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kNumbers);
    ASSERT_TRUE(wait_for_connection());

    for (int number = 0; number < 30; ++number)
        publish(broker.port(), "s/c/" + std::to_string(number), "no number");

    EXPECT_TRUE(wait_until([] { return status_number("refused") == 30; }));
    EXPECT_EQ(lines_with(bridge.log(), "is refused"), 10u);
}

TEST(Overlap, WritesACommandOnceByTheRuleThatWins)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(),
                         std::string(kNumbers) +
                             "[[in]]\nfilter = \"c/speed\"\nprefix = \"s\"\ntags = \"exact\"\n");
    ASSERT_TRUE(wait_for_connection());

    publish(broker.port(), "s/c/speed", "50");
    publish(broker.port(), "s/c/other", "51"); // comes behind all copies of the first

    EXPECT_TRUE(wait_until([] { return read_tag("c/other").has_value(); }));
    EXPECT_TRUE(wait_for_tag("exact/c/speed", "50"));
    EXPECT_TRUE(wait_until([] { return status_number("in") == 2; }));
    EXPECT_EQ(status_number("in"), 2u);
    EXPECT_FALSE(read_tag("c/speed"));
}

TEST(Directories, OfTooManyLevelsAreNotMade)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kNumbers);
    ASSERT_TRUE(wait_for_connection());
    std::string deep = "s/c/deep";
    for (int level = 0; level < 100; ++level)
        deep += "/x";

    publish(broker.port(), deep, "1");

    EXPECT_TRUE(wait_until([] { return status_number("refused") == 1; }));
    EXPECT_FALSE(exists("/dev/shm/zu-kp/c"));
    EXPECT_THAT(bridge.log(), HasSubstr("it has more than 64 levels"));
}

TEST(Directories, ThatTheBridgeHasMadeGoWithItsTags)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kNumbers);
    ASSERT_TRUE(wait_for_connection());
    Tags others;
    others.declare("c/kept/by/others");
    publish(broker.port(), "s/c/d/e/f", "1");
    publish(broker.port(), "s/g", "1");
    ASSERT_TRUE(wait_until([] { return read_tag("c/d/e/f").has_value(); }));

    EXPECT_EQ(bridge.stop(), 0);

    EXPECT_FALSE(exists("/dev/shm/zu-kp/c/d"));
    EXPECT_TRUE(exists("/dev/shm/zu-kp/c/kept/by/others"));
}

TEST(StateTopic, ThatTheBrokerDeniesIsSaidAndCounted)
{
    std::ofstream("/run/acl") << "topic readwrite p/a/#\n";
    const Broker broker("allow_anonymous true\nacl_file /run/acl\n");
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    EXPECT_TRUE(wait_until([] { return status_number("refused") >= 1; }));
    EXPECT_THAT(bridge.log(), HasSubstr("the broker does not take the state topic p/$bridge/state: "
                                        "Not authorized"));
}

TEST(Status, IsNotConnectedAfterASuccessorOfAKilledBridgeHasLeft)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    bridge.signal(SIGKILL);
    ASSERT_TRUE(bridge.wait());
    bridge.start();
    ASSERT_TRUE(wait_until([] { return status_number("topics") == 0; }));
    ASSERT_TRUE(wait_until([&] { return lines_with(bridge.log(), "connected to") == 2; }));

    EXPECT_EQ(bridge.stop(), 0);

    const auto connected = read_tag("bridge/mqtt/connected");
    ASSERT_TRUE(connected); // the killed one is still counted
    EXPECT_EQ(connected->value, std::string(1, '\0'));
}

TEST(Status, HasAHeartbeat)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    const uint64_t first = status_number("heartbeat");

    EXPECT_TRUE(wait_until([first] { return status_number("heartbeat") > first; }, 5s));
    EXPECT_LT(kp_get_timestamp_us() - status_number("heartbeat"), 30'000'000u);
}

TEST(Mesh, IsWatchedForEndpointsThatTellTheBridgeNothing)
{
    constexpr int full = KP_MAX_PEERS + 1;
    const Broker broker;
    std::vector<kp_t *> handles;
    for (int number = 0; number < full; ++number)
        handles.push_back(kp_new(("crowd" + std::to_string(number)).c_str(), nullptr));
    ASSERT_TRUE(wait_until([] { return connections_to_endpoints() == full * (full - 1); }));

    BridgeProgram bridge(broker.port(), kNumbers);

    EXPECT_TRUE(wait_until([] { return status_number("unheard") == full; }));
    // Only some are named, and which depends on who was found first.
    EXPECT_THAT(bridge.log(), ContainsRegex("the endpoint crowd[0-9]+ tells this bridge nothing: "
                                            "it has its 31 peers already"));
    for (kp_t *handle : handles)
        (void)kp_destroy(handle);
    EXPECT_TRUE(wait_until([] { return status_number("unheard") == 0; }));
}

TEST(Mesh, WithRoomForTheBridgeIsHeard)
{
    const Broker broker;
    Tags tags;
    BridgeProgram bridge(broker.port(), kNumbers);
    ASSERT_TRUE(wait_for_connection());

    const uint64_t begin = status_number("heartbeat");
    EXPECT_TRUE(wait_until([&] { return status_number("heartbeat") > begin + 7'000'000; }));

    EXPECT_EQ(status_number("unheard"), 0u);
}
