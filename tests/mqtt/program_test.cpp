// The program itself: its options, TLS, the service manager, and two of it.
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

// An authority, a certificate for the broker's address and one for the device, below /run/tls.
void make_certificates()
{
    const char *script =
        "mkdir -p /run/tls && cd /run/tls && exec 2>openssl.log && "
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key "
        "-out ca.pem -subj /CN=authority -days 2 && "
        "for name in broker device; do "
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $name.key "
        "-out $name.csr -subj /CN=$name && "
        "echo subjectAltName=IP:127.0.0.1 > $name.ext && "
        "openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 "
        "-extfile $name.ext -out $name.pem || exit 1; done && "
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout other.key "
        "-out other.pem -subj /CN=other -days 2 && chmod 600 *.key";
    ASSERT_EQ(std::system(script), 0);
}

// A further listener that accepts only clients with a certificate.
std::string tls_settings(int port)
{
    return "listener " + std::to_string(port) +
           " 127.0.0.1\nallow_anonymous true\ncafile /run/tls/ca.pem\n"
           "certfile /run/tls/broker.pem\nkeyfile /run/tls/broker.key\nrequire_certificate true\n";
}

// The scheduling policies of a process's threads.
std::vector<int> policies_of(pid_t pid)
{
    std::vector<int> policies;
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    for (const auto &thread : std::filesystem::directory_iterator(folder))
        policies.push_back(sched_getscheduler(std::stoi(thread.path().filename())));
    return policies;
}

std::string tls_client(const std::string &authority)
{
    return "[broker.tls]\nca-file = \"/run/tls/" + authority +
           ".pem\"\ncert-file = \"/run/tls/device.pem\"\nkey-file = \"/run/tls/device.key\"\n";
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
    EXPECT_THAT(bridge.log(), HasSubstr("/run/no.pem: holds no PEM block of a certificate"));
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

TEST(Tls, ConnectsWithCertificates)
{
    make_certificates();
    const int port = free_port();
    const Broker broker("allow_anonymous true\n" + tls_settings(port));
    BridgeProgram bridge(port, configuration(port, kBothWays, tls_client("ca")));

    EXPECT_TRUE(wait_for_connection()) << bridge.log();
}

TEST(Tls, TrustsNoOtherAuthority)
{
    make_certificates();
    const int port = free_port();
    const Broker broker("allow_anonymous true\n" + tls_settings(port));
    BridgeProgram bridge(port, configuration(port, kBothWays, tls_client("other")));

    EXPECT_TRUE(
        wait_until([&] { return bridge.log().find("no connection to") != std::string::npos; }));
    EXPECT_FALSE(read_tag("bridge/mqtt/connected")->value[0]);
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
