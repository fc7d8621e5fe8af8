#include "config/configuration_change.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

const std::string kTop = "device = \"press\"\nstate-file = \"/run/s\"\n";
const std::string kBroker = "[broker]\nclient-id = \"i\"\n";
const std::string kRules = "[[out]]\npattern = \"a/#\"\n";
const std::string kTree = "[[in]]\nfilter = \"a/#\"\nshared = true\n";

Configuration good(const std::string &text)
{
    auto [configuration, problems] = parse_configuration(text, "f");
    EXPECT_TRUE(problems.empty()) << text;
    return configuration;
}

Reach reach(const std::string &before, const std::string &after)
{
    return reach_of(good(before), good(after));
}

} // namespace

TEST(Reach, OfRulesAndPacesIsTheRules)
{
    const std::string before = kTop + kBroker + kRules;

    EXPECT_EQ(reach(before, before), Reach::rules);
    EXPECT_EQ(reach(before, "discovery = \"h\"\n" + before), Reach::rules);
    EXPECT_EQ(reach(before, before + "retain = false\n[[in]]\nfilter = \"c/#\"\n"), Reach::rules);
    EXPECT_EQ(
        reach(before, "prefix = \"other\"\nstate-topic = \"kp/press/$bridge/state\"\n" + before),
        Reach::rules);
    EXPECT_EQ(reach(before, kTop + "scan-interval = 1\n" + kBroker + "burst-rate = 5\n" + kRules),
              Reach::rules);
}

TEST(Reach, OfWhatTheBrokerKnowsIsTheConnection)
{
    const std::string before = kTop + kBroker + kRules;

    EXPECT_EQ(reach(before, kTop + "[broker]\nclient-id = \"j\"\n" + kRules), Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + "host = \"b\"\n" + kRules), Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + "[broker.tls]\n" + kRules), Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + "session-expiry = 9\n" + kRules), Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + "[[broker.fallback]]\nhost = \"b\"\n" + kRules),
              Reach::connection);
    EXPECT_EQ(reach(before, kTop + "state-topic = \"s\"\n" + kBroker + kRules), Reach::connection);
}

TEST(Reach, OfOtherRulesOfASharedTreeIsTheConnection)
{
    const std::string before = kTop + kBroker + kRules + kTree;

    EXPECT_EQ(reach(before, before), Reach::rules);
    EXPECT_EQ(reach(kTop + kBroker + kRules, before), Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + "[[out]]\npattern = \"b/#\"\n" + kTree),
              Reach::connection);
    EXPECT_EQ(reach(before, kTop + kBroker + kRules + "deadband = 1\n" + kTree), Reach::rules);
}

TEST(Reach, OfWhatTheProcessIsIsEverything)
{
    const std::string before = kTop + kBroker + kRules;

    EXPECT_EQ(reach(before, "endpoint = \"e\"\n" + before), Reach::everything);
    EXPECT_EQ(reach(before, "dictionary = \"/run/t\"\n" + before), Reach::everything);
    EXPECT_EQ(reach(before, "device = \"other\"\n" + kBroker + kRules), Reach::everything);
}
