// The program itself: its options, the service manager, and two of it.
#include "broker.h"
#include "device.h"
#include "testing/process.h"
#include "testing/store_provider.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kptest;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// The scheduling policies of a process's threads.
std::vector<int> policies_of(pid_t pid)
{
    std::vector<int> policies;
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    for (const auto &thread : std::filesystem::directory_iterator(folder))
        policies.push_back(sched_getscheduler(std::stoi(thread.path().filename())));
    return policies;
}

} // namespace

TEST(Check, SaysThatAConfigurationIsGood)
{
    BridgeProgram bridge(1883, kBothWays, {"--check"});

    EXPECT_THAT(bridge.output(), ElementsAre(HasSubstr("good, 1 rules out, 1 rules in")));
    EXPECT_EQ(bridge.wait(), 0);
}

TEST(Check, NamesProblemsAndFailsWithTwo)
{
    BridgeProgram bridge(1883, "[[out]]\npattern = \"a/#/b\"\n", {"--check"});

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(),
                HasSubstr("pattern: is no pattern of tags: \"#\" must be the last level"));
}

TEST(Check, LooksAtTheRightsOfTheCredentials)
{
    std::ofstream("/run/secret") << "user\npassword\n";
    ASSERT_EQ(chmod("/run/secret", 0644), 0);
    BridgeProgram bridge(
        1883, configuration(1883, kBothWays, "credentials-file = \"/run/secret\"\n"), {"--check"});

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(), HasSubstr("/run/secret: others can read or change it"));
}

TEST(Check, LooksAtTheStateFileAndTheCertificates)
{
    std::ofstream("/run/no.pem") << "no certificate\n";
    BridgeProgram bridge(
        1883,
        configuration(1883, "state-file = \"/run/none/state\"\n" + std::string(kBothWays),
                      "[broker.tls]\nca-file = \"/run/no.pem\"\n"),
        {"--check"});

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(), HasSubstr("state-file: /run/none: No such file or directory"));
    EXPECT_THAT(bridge.log(), HasSubstr("/run/no.pem: holds no certificate in PEM form"));
}

TEST(Check, IsGoodBesideARunningBridgeWithTheSameStateFile)
{
    const Broker broker;
    const std::string settings = "state-file = \"/run/shared.state\"\n" + std::string(kBothWays);
    BridgeProgram running(broker.port(), settings);
    ASSERT_TRUE(wait_for_connection());

    BridgeProgram checking(broker.port(), settings, {"--check"});

    EXPECT_EQ(checking.wait(), 0) << checking.log();
}

TEST(DryRun, PrintsTheMappingOfTheLiveTopics)
{
    StoreProvider provider("a/b", KP_TYPE_DOUBLE);
    provider.write(bytes_of(1.5));
    StoreProvider untaken("b/c");
    BridgeProgram bridge(1883, kBothWays, {"--dry-run"});

    const auto lines = bridge.output();

    ASSERT_EQ(lines.size(), 2u);
    const auto out = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(out["direction"], "out");
    EXPECT_EQ(out["tag"], "a/b");
    EXPECT_EQ(out["topic"], "p/a/b");
    EXPECT_EQ(out["type"], "double");
    EXPECT_EQ(nlohmann::json::parse(lines[1])["filter"], "s/c/#");
}

TEST(Usage, OfAnUnknownOptionFailsWithTwo)
{
    BridgeProgram bridge(1883, kBothWays, {"--colour"});

    EXPECT_EQ(bridge.wait(), 2);
}

TEST(ServiceManager, IsToldThatTheBridgeIsReadyWithoutABroker)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/notify");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(setenv("NOTIFY_SOCKET", "/run/notify", 1), 0);
    ASSERT_EQ(setenv("WATCHDOG_USEC", "2000000", 1), 0);
    const Broker broker;
    BridgeProgram bridge(1, kBothWays);
    (void)unsetenv("NOTIFY_SOCKET");

    std::string heard;
    EXPECT_TRUE(wait_until([&] {
        char text[256];
        const ssize_t size = recv(fd, text, sizeof text, MSG_DONTWAIT);
        heard += size > 0 ? std::string(text, static_cast<size_t>(size)) + "\n" : "";
        return heard.find("WATCHDOG=1") != heard.npos && heard.find("STATUS=") != heard.npos;
    })) << heard;

    EXPECT_TRUE(heard.starts_with("READY=1\n")) << heard;
    (void)close(fd);
}

TEST(TwoOfIt, WithOneEndpointDoNotTakeItFromEachOther)
{
    const Broker broker;
    BridgeProgram first(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    BridgeProgram second(broker.port(), kBothWays);

    EXPECT_EQ(second.wait(), 1);
    EXPECT_THAT(second.log(), HasSubstr("a live process has the endpoint kp-mqtt already"));
}

TEST(Leaving, RemovesTheBridgesOwnTagsAndEndpoint)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());
    ASSERT_EQ(access("/run/providers/kp-mqtt", F_OK), 0);

    EXPECT_EQ(bridge.stop(), 0);

    EXPECT_NE(access("/run/providers/kp-mqtt", F_OK), 0);
    EXPECT_NE(access("/dev/shm/zu-kp/bridge/mqtt/connected", F_OK), 0);
}

TEST(Threads, LetWritersGoFirst)
{
    const Broker broker;
    BridgeProgram bridge(broker.port(), kBothWays);
    ASSERT_TRUE(wait_for_connection());

    const std::vector<int> policies = policies_of(bridge.pid());

    EXPECT_GE(policies.size(), 3u);
    EXPECT_THAT(policies, testing::Each(SCHED_BATCH));
}
