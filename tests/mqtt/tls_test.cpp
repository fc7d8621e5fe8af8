// Encrypted connections, and what is said where one does not come up.
#include "broker.h"
#include "certificates.h"
#include "device.h"
#include "small_broker.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::HasSubstr;

namespace {

// A broker with a listener for TLS, whose certificate has this name.
class TlsBroker {
  public:
    explicit TlsBroker(const std::string &certificate = "broker", const std::string &more = "")
        : broker_(settings(port_.number(), certificate) + more)
    {
    }
    int port() const
    {
        return port_.number();
    }
    int plain_port() const
    {
        return broker_.port();
    }

  private:
    static std::string settings(int port, const std::string &certificate)
    {
        make_certificates();
        return "allow_anonymous true\nlistener " + std::to_string(port) +
               " 127.0.0.1\nallow_anonymous true\ncafile /run/tls/ca.pem\ncertfile /run/tls/" +
               certificate + ".pem\nkeyfile /run/tls/" + certificate + ".key\n";
    }

    ReservedPort port_;
    Broker broker_;
};

std::string client(int port, const std::string &tls)
{
    return configuration(port, kBothWays, "[broker.tls]\nca-file = \"/run/tls/ca.pem\"\n" + tls);
}

// What a bridge says of a connection that does not come up.
std::string complaint(int port, const std::string &settings)
{
    BridgeProgram bridge(port, settings);
    EXPECT_TRUE(wait_until(
        [&] { return bridge.log().find("; trying again, next in") != std::string::npos; }));
    const std::string log = bridge.log();
    const size_t begin = log.find("no connection to");
    return begin == log.npos ? log : log.substr(begin, log.find("; trying again", begin) - begin);
}

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + '\n';
    return text;
}

constexpr const char *kRequired = "require_certificate true\n";
constexpr const char *kOwn = "cert-file = \"/run/tls/device.pem\"\n"
                             "key-file = \"/run/tls/device.key\"\n";

} // namespace

TEST(Tls, ConnectsWithCertificates)
{
    const TlsBroker broker("broker", kRequired);
    BridgeProgram bridge(broker.port(), client(broker.port(), kOwn));

    EXPECT_TRUE(wait_for_connection()) << bridge.log();
}

TEST(Tls, SaysThatTheAuthorityIsUnknown)
{
    const TlsBroker broker;

    EXPECT_THAT(
        complaint(broker.port(), configuration(broker.port(), kBothWays,
                                               "[broker.tls]\nca-file = \"/run/tls/other.pem\"\n")),
        HasSubstr(": TLS: the broker's certificate comes from an authority that is not "
                  "trusted here: CN=ca; see ca-file"));
}

TEST(Tls, SaysWhomTheCertificateIsFor)
{
    const TlsBroker broker;
    std::string settings = client(broker.port(), "");
    settings.replace(settings.find("127.0.0.1"), 9, "localhost");

    EXPECT_THAT(complaint(broker.port(), settings),
                HasSubstr(": TLS: the broker's certificate is for 127.0.0.1, not for localhost"));
}

TEST(Tls, SaysSinceWhenTheCertificateHasExpired)
{
    const TlsBroker broker("expired");

    EXPECT_THAT(complaint(broker.port(), client(broker.port(), "")),
                HasSubstr(": TLS: the broker's certificate expired on 20"));
}

TEST(Tls, SaysThatThePortIsForPlainText)
{
    const TlsBroker broker;

    EXPECT_THAT(complaint(broker.plain_port(), client(broker.plain_port(), "")),
                HasSubstr(": TLS: the port does not answer in TLS; is it one for plain text?"));
}

TEST(Tls, SaysThatThePortIsForTls)
{
    const TlsBroker broker;

    EXPECT_THAT(complaint(broker.port(), configuration(broker.port(), kBothWays)),
                HasSubstr(" port is for TLS; see [broker.tls]"));
}

TEST(Tls, SaysThatTheBrokerWantsACertificate)
{
    const TlsBroker broker("broker", kRequired);

    EXPECT_THAT(complaint(broker.port(), client(broker.port(), "")),
                testing::AnyOf(HasSubstr(": TLS: the broker breaks off: "),
                               HasSubstr(": TLS: the broker wants a certificate, which this")));
}

TEST(Tls, SaysWhichFileHasBecomeRubbish)
{
    const TlsBroker broker;
    BridgeProgram bridge(broker.plain_port(), client(broker.plain_port(), ""));
    ASSERT_TRUE(
        wait_until([&] { return bridge.log().find("no connection") != std::string::npos; }));

    std::ofstream("/run/tls/ca.pem") << "rubbish\n";

    EXPECT_TRUE(wait_until([&] {
        return bridge.log().find("TLS: /run/tls/ca.pem: holds no certificate in PEM form that can "
                                 "be read (no start line)") != std::string::npos;
    })) << bridge.log();
}

TEST(CheckOfTls, NamesAKeyOfAnotherCertificate)
{
    make_certificates();
    BridgeProgram bridge(1,
                         client(1, "cert-file = \"/run/tls/device.pem\"\n"
                                   "key-file = \"/run/tls/broker.key\"\n"),
                         {"--check"});

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(), HasSubstr("/run/tls/broker.key: is not the key of the certificate in "
                                        "/run/tls/device.pem"));
}

TEST(CheckOfTls, NamesACertificateThatHasExpired)
{
    make_certificates();
    BridgeProgram bridge(1,
                         client(1, "cert-file = \"/run/tls/expired.pem\"\n"
                                   "key-file = \"/run/tls/expired.key\"\n"),
                         {"--check"});

    EXPECT_EQ(bridge.wait(), 2);
    EXPECT_THAT(bridge.log(), HasSubstr("/run/tls/expired.pem: expired on 20"));
}

TEST(CheckOfTheConnection, PrintsEachStepAndLeavesTheBridgeConnected)
{
    const TlsBroker broker;
    BridgeProgram bridge(broker.port(), client(broker.port(), ""));
    ASSERT_TRUE(wait_for_connection());

    BridgeProgram check(broker.port(), client(broker.port(), ""), {"--check", "--connect"});

    const std::string printed = joined(check.output());
    EXPECT_EQ(check.wait(), 0) << printed;
    const std::string port = std::to_string(broker.port());
    EXPECT_THAT(printed, HasSubstr("\nresolve 127.0.0.1: 127.0.0.1\nconnect to 127.0.0.1 port " +
                                   port + ": good\nTLS: TLSv1."));
    EXPECT_THAT(printed, HasSubstr(", certificate for 127.0.0.1, good until 20"));
    EXPECT_THAT(printed, HasSubstr("\nMQTT as kp-mqtt-dev-check: accepted\n"));
    EXPECT_THAT(printed, HasSubstr("\nsubscribe s/c/#: granted\n"));
    EXPECT_EQ(bridge.log().find("no connection"), std::string::npos);
    EXPECT_EQ(retained(broker.plain_port(), "p/$bridge/#")["p/$bridge/state"].payload, "online");
}

TEST(CheckOfTheConnection, SaysWhichStepFails)
{
    const Broker broker("allow_anonymous false\n");
    const ReservedPort port_of_nobody;
    const int nobody = port_of_nobody.number();
    BridgeProgram refused(broker.port(), kBothWays, {"--check", "--connect"});
    BridgeProgram unreachable(nobody, kBothWays, {"--check", "--connect"});
    std::string settings = configuration(1, kBothWays);
    settings.replace(settings.find("127.0.0.1"), 9, "no-such-host.invalid");
    BridgeProgram unknown(1, settings, {"--check", "--connect"});

    EXPECT_EQ(refused.wait(), 1);
    EXPECT_THAT(joined(refused.output()),
                HasSubstr("\nMQTT as kp-mqtt-dev-check: FAILED: the broker "
                          "refuses the connection: Not authorized"));
    EXPECT_EQ(unreachable.wait(), 1);
    EXPECT_THAT(joined(unreachable.output()),
                HasSubstr("port " + std::to_string(nobody) + ": FAILED: Connection refused"));
    EXPECT_EQ(unknown.wait(), 1);
    EXPECT_THAT(joined(unknown.output()), HasSubstr("\nresolve no-such-host.invalid: FAILED: "));
}

TEST(CheckOfTheConnection, SaysWhichSubscriptionIsRefused)
{
    constexpr uint8_t not_authorized = 0x87;
    SmallBroker broker(
        [](const std::string &filter) { return filter == "s/c/#" ? not_authorized : uint8_t{1}; });
    BridgeProgram check(broker.port(), kBothWays, {"--check", "--connect"});

    const std::string printed = joined(check.output());

    EXPECT_EQ(check.wait(), 1);
    EXPECT_THAT(printed, HasSubstr("\nsubscribe s/c/#: FAILED: Not authorized\n"));
    EXPECT_THAT(printed, HasSubstr("\nsubscribe p/$bridge/state: granted\n"));
}

TEST(CheckOfTheConnection, TriesEachBrokerOfTheList)
{
    const Broker broker;
    const ReservedPort port_of_nobody;
    const int nobody = port_of_nobody.number();
    BridgeProgram check(nobody,
                        configuration(nobody, kBothWays,
                                      "[[broker.fallback]]\nhost = \"localhost\"\nport = " +
                                          std::to_string(broker.port()) + "\n"),
                        {"--check", "--connect"});

    const std::string printed = joined(check.output());

    EXPECT_EQ(check.wait(), 1);
    EXPECT_THAT(printed, HasSubstr("port " + std::to_string(nobody) + ": FAILED: "));
    EXPECT_THAT(printed, HasSubstr("\nMQTT as kp-mqtt-dev-check: accepted\n"));
}
