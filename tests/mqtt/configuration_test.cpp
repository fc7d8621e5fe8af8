#include "config/configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> problems_of(const std::string &text)
{
    return parse_configuration(text, "f").problems;
}

Configuration good(const std::string &text)
{
    auto [configuration, problems] = parse_configuration(text, "f");
    EXPECT_THAT(problems, IsEmpty());
    return configuration;
}

} // namespace

TEST(Configuration, HasDefaultsForAllButTheRules)
{
    const Configuration result = good("device = \"press\"\n[[out]]\npattern = \"a/#\"\n"
                                      "[[in]]\nfilter = \"command/#\"\n");

    EXPECT_EQ(result.prefix, "kp/press");
    EXPECT_EQ(result.state_topic, "kp/press/$bridge/state");
    EXPECT_EQ(result.broker.client_id, "kp-mqtt-press");
    EXPECT_EQ(result.broker.port, 1883);
    EXPECT_EQ(result.out[0].prefix, "kp/press");
    EXPECT_EQ(result.out[0].qos, 1);
    EXPECT_TRUE(result.out[0].retain);
    EXPECT_EQ(result.in[0].full_filter(), "kp/press-set/command/#");
    EXPECT_FALSE(result.in[0].retained);
}

TEST(Configuration, ReadsEverySetting)
{
    const Configuration result = good(R"(
device = "press"
prefix = "plant/press"
endpoint = "mine"
status-prefix = "own"
state-topic = "plant/state/press"
state-file = "/var/lib/x"
scan-interval = 0.5
quality-when-gone = 64
trust-visible = true
dictionary = "/etc/tags"
discovery = "homeassistant"
[broker]
host = "broker"
client-id = "id"
keep-alive = 10
connect-timeout = 5
reconnect-min = 0.2
reconnect-max = 9
burst-rate = 50
[broker.tls]
ca-file = "ca.pem"
cert-file = "c.pem"
key-file = "k.pem"
[[out]]
pattern = "a/#"
exclude = ["a/x", "a/y/#"]
prefix = "values"
qos = 0
retain = false
payload = "json"
min-interval = 1.5
deadband = 0.5
deadband-relative = 0.01
deadband-of-range = 0.02
only-changes = true
expiry = 60
[[in]]
filter = "#"
prefix = "orders"
tags = "order"
qos = 2
payload = "raw"
type = "double"
max-size = 100
max-tags = 5
retained = true
)");

    EXPECT_EQ(result.scan_interval, milliseconds(500));
    EXPECT_EQ(result.quality_when_gone, 64);
    EXPECT_TRUE(result.trust_visible);
    EXPECT_EQ(result.dictionary, "/etc/tags");
    EXPECT_EQ(result.discovery, "homeassistant");
    EXPECT_EQ(result.broker.port, 8883);
    EXPECT_EQ(result.broker.reconnect_min, milliseconds(200));
    EXPECT_EQ(result.broker.tls->key_file, "k.pem");
    EXPECT_EQ(result.out[0].payload, PayloadMode::json);
    EXPECT_EQ(result.out[0].quiet.min_interval, milliseconds(1500));
    EXPECT_EQ(result.out[0].quiet.relative_deadband, 0.01);
    EXPECT_EQ(result.out[0].quiet.deadband_of_range, 0.02);
    EXPECT_THAT(result.out[0].exclude, ElementsAre("a/x", "a/y/#"));
    EXPECT_EQ(result.in[0].full_filter(), "orders/#");
    EXPECT_EQ(result.in[0].type, KP_TYPE_DOUBLE);
    EXPECT_TRUE(result.in[0].retained);
}

TEST(Configuration, NamesEveryFaultWithItsLine)
{
    EXPECT_THAT(
        problems_of(R"(colour = "red"
scan-interval = "fast"
[broker]
port = 70000
[[out]]
pattern = "a/+x"
qos = 3
payload = "xml"
[[in]]
type = "int"
)"),
        testing::UnorderedElementsAre(
            "f:1: colour: unknown setting", "f:2: scan-interval: must be a number from 0.1 to 3600",
            "f:4: port: must be a whole number from 1 to 65535",
            "f:6: pattern: is no pattern of tags: \"+x\" mixes a wildcard with other characters",
            "f:7: qos: must be a whole number from 0 to 2",
            "f:8: payload: must be \"plain\", \"json\" or \"raw\"", "f:9: filter: is missing",
            "f:10: type: is no value type, as \"double\""));
}

TEST(Configuration, NamesTheLineThatIsNoToml)
{
    const auto problems = problems_of("device = \"a\"\n[[out\n");

    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(problems[0].starts_with("f:2: ")) << problems[0];
}

TEST(Configuration, OfAMissingFileIsAFault)
{
    const auto problems = load_configuration("/run/none").problems;

    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(problems[0].starts_with("/run/none")) << problems[0];
}

TEST(Configuration, OfADirectoryIsAFault)
{
    EXPECT_THAT(load_configuration("/run").problems, ElementsAre("/run: Is a directory"));
    EXPECT_THAT(load_configuration("/run/none").problems,
                ElementsAre("/run/none: No such file or directory"));
}

TEST(Configuration, RefusesFiltersThatCanGiveNoTag)
{
    EXPECT_THAT(
        problems_of("[[in]]\nfilter = \"a//b\"\n"),
        ElementsAre("f:2: filter: takes no topic that can be a tag: it has an empty level"));
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"a/%2F/b\"\n"),
                ElementsAre(testing::HasSubstr("filter: takes no topic that can be a tag")));
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"a\\tb/#\"\n"),
                ElementsAre("f:2: filter: is no filter of topics: it has a control character or is "
                            "not UTF-8"));
}

TEST(Configuration, RefusesSharedSubscriptions)
{
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"$share/g/a/#\"\nprefix = \"\"\n"),
                ElementsAre("f:2: filter: shared subscriptions cannot be used"));
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"a/#\"\nprefix = \"$share/g\"\n"),
                ElementsAre("f:3: prefix: shared subscriptions cannot be used"));
}

TEST(Configuration, RefusesEndpointsThatAreNoNameOfASocket)
{
    const std::string rule = "[[out]]\npattern = \"a\"\n";

    EXPECT_THAT(problems_of("endpoint = \"a/b\"\n" + rule),
                ElementsAre("f:1: endpoint: must not be empty nor have a \"/\""));
    EXPECT_THAT(problems_of("endpoint = \"" + std::string(93, 'e') + "\"\n" + rule),
                ElementsAre("f:1: endpoint: must not be longer than 92 bytes"));
    EXPECT_THAT(problems_of("endpoint = \"" + std::string(92, 'e') + "\"\n" + rule), IsEmpty());
}

TEST(Configuration, RefusesAnEmptyHost)
{
    EXPECT_THAT(problems_of("[broker]\nhost = \"\"\n[[out]]\npattern = \"a\"\n"),
                ElementsAre("f:2: host: must not be empty"));
}

TEST(Configuration, WithoutARuleHasNothingToDo)
{
    EXPECT_THAT(problems_of("device = \"a\"\n"),
                ElementsAre("f: there is no [[out]] and no [[in]] rule: nothing to do"));
}

TEST(Overlap, AtTheBrokerIsRefusedWithBothRules)
{
    EXPECT_THAT(
        problems_of("[[out]]\npattern = \"plant/#\"\nprefix = \"dev\"\n"
                    "[[in]]\nfilter = \"+/pump\"\nprefix = \"dev\"\ntags = \"other\"\n"),
        ElementsAre("f: [[out]] 1 (line 1) and [[in]] 1 (line 4) overlap at the broker: the first "
                    "sends dev/plant/#, the second receives dev/+/pump; keep them apart, or say "
                    "shared = true in the second"));
}

TEST(Overlap, InTheTagsIsRefusedWithBothRules)
{
    EXPECT_THAT(
        problems_of("device = \"d\"\n[[out]]\npattern = \"#\"\n[[in]]\nfilter = \"command/#\"\n"),
        ElementsAre(
            "f: [[out]] 1 (line 2) and [[in]] 1 (line 4) overlap in the tags: the second "
            "writes command/#, the first sends #; exclude it there, or say shared = true in "
            "the second"));
}

TEST(Overlap, IsNoneWhereTheOutRuleExcludesWhatIsWritten)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"#\"\nexclude = [\"command\", \"command/#\"]\n"
                            "[[in]]\nfilter = \"command/#\"\n"),
                IsEmpty());
}

TEST(Overlap, IsFoundWhereAFilterTakesTheParentThatThePatternExcludes)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"#\"\nexclude = [\"a/#\"]\n"
                            "[[in]]\nfilter = \"a/#\"\n"),
                ElementsAre("f: [[out]] 1 (line 1) and [[in]] 1 (line 4) overlap in the tags: the "
                            "second writes a, the first sends #; exclude it there, or say shared = "
                            "true in the second"));
}

TEST(Overlap, IsFoundWhereAFilterTakesTheParentThatTheRuleSends)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a\"\n[[in]]\nfilter = \"a/#\"\n"),
                ElementsAre("f: [[out]] 1 (line 1) and [[in]] 1 (line 3) overlap in the tags: the "
                            "second writes a, the first sends a; exclude it there, or say shared = "
                            "true in the second"));
}

TEST(Overlap, IsFoundAtTheTopicThatATagBelowItStandsFor)
{
    constexpr const char *kIn = "[[in]]\nfilter = \"a\"\nprefix = \"p\"\ntags = \"t\"\n";
    constexpr const char *kText =
        "f: [[out]] 1 (line 2) and [[in]] 1 (line 4) overlap at the broker: the first sends p/a, "
        "the second receives p/a; keep them apart, or say shared = true in the second";

    EXPECT_THAT(problems_of("prefix = \"p\"\n[[out]]\npattern = \"a/+\"\n" + std::string(kIn)),
                ElementsAre(kText));
    EXPECT_THAT(problems_of("prefix = \"p\"\n[[out]]\npattern = \"a/_\"\n" + std::string(kIn)),
                ElementsAre(kText));
}

TEST(Overlap, IsFoundAtTheTagThatStandsForATopic)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a/_\"\n[[in]]\nfilter = \"a\"\n"),
                ElementsAre("f: [[out]] 1 (line 1) and [[in]] 1 (line 3) overlap in the tags: the "
                            "second writes a/_, the first sends a/_; exclude it there, or say "
                            "shared = true in the second"));
}

TEST(Overlap, IsFoundBehindEscapes)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"$z/#\"\n[[in]]\nfilter = \"%24z/#\"\n"),
                ElementsAre("f: [[out]] 1 (line 1) and [[in]] 1 (line 3) overlap in the tags: the "
                            "second writes $z/#, the first sends $z/#; exclude it there, or say "
                            "shared = true in the second"));
    EXPECT_THAT(problems_of("prefix = \"p\"\n[[out]]\npattern = \"a/$z/b\"\n"
                            "[[in]]\nfilter = \"a/+/b\"\nprefix = \"p\"\ntags = \"t\"\n"),
                ElementsAre(testing::HasSubstr("the first sends p/a/$z/b")));
}

TEST(Overlap, OfWhatIsSentWithTheStateTopicIsRefused)
{
    constexpr const char *kOut = "[[out]]\npattern = \"a/#\"\n";

    EXPECT_THAT(problems_of("prefix = \"p\"\nstate-topic = \"p/a/b%2Bc\"\n" + std::string(kOut)),
                ElementsAre("f: [[out]] 1 (line 3) can send a tag to the bridge's own state topic "
                            "p/a/b%2Bc"));
    EXPECT_THAT(problems_of("prefix = \"p\"\nstate-topic = \"p/a\"\n" + std::string(kOut)),
                ElementsAre(testing::HasSubstr("the bridge's own state topic p/a")));
    EXPECT_THAT(problems_of("prefix = \"p\"\nstate-topic = \"p/b\"\n" + std::string(kOut)),
                IsEmpty());
}

TEST(Overlap, WithWhatIsAnnouncedIsRefused)
{
    const auto problems = [](const std::string &rule) {
        return problems_of("discovery = \"h/a\"\nprefix = \"p\"\n" + rule);
    };
    constexpr const char *kSends =
        "f: [[out]] 1 (line 3) can send a tag to a topic below h/a, where tags are announced";
    constexpr const char *kReceives = "f: [[in]] 1 (line 3) receives what is announced below h/a";

    EXPECT_THAT(problems("[[out]]\npattern = \"x\"\nprefix = \"h/a\"\n"), ElementsAre(kSends));
    EXPECT_THAT(problems("[[out]]\npattern = \"x\"\nprefix = \"h/a/b\"\n"), ElementsAre(kSends));
    EXPECT_THAT(problems("[[out]]\npattern = \"+/x\"\nprefix = \"h\"\n"), ElementsAre(kSends));
    EXPECT_THAT(problems("[[out]]\npattern = \"+/a/#\"\nprefix = \"\"\n"), ElementsAre(kSends));
    EXPECT_THAT(problems("[[in]]\nfilter = \"#\"\nprefix = \"h\"\n"), ElementsAre(kReceives));
    EXPECT_THAT(problems("[[in]]\nfilter = \"#\"\nprefix = \"h\"\nshared = true\n"),
                ElementsAre(kReceives));
    EXPECT_THAT(problems("[[out]]\npattern = \"b/#\"\nprefix = \"h\"\n"), IsEmpty());
    EXPECT_THAT(problems("[[out]]\npattern = \"x\"\nprefix = \"h/ab\"\n"), IsEmpty());
    EXPECT_THAT(problems("[[out]]\npattern = \"+/a/#\"\nprefix = \"\"\nexclude = [\"h/#\"]\n"),
                IsEmpty());
    EXPECT_THAT(problems("[[in]]\nfilter = \"status\"\nprefix = \"h/a\"\n"), IsEmpty());
}

TEST(InRules, WithTheSameFilterAreRefused)
{
    EXPECT_THAT(
        problems_of("[[in]]\nfilter = \"b/x\"\nprefix = \"a\"\n"
                    "[[in]]\nfilter = \"x\"\nprefix = \"a/b\"\n"),
        ElementsAre("f: [[in]] 1 (line 1) and [[in]] 2 (line 4) have the same filter a/b/x: "
                    "the second can never win"));
}

TEST(InRules, MustNotBeGivenKeptMessagesByOnesThatAreLessExact)
{
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"x\"\n[[in]]\nfilter = \"#\"\nretained = true\n"),
                ElementsAre("f: [[in]] 1 (line 1) and [[in]] 2 (line 3) both take some topics: the "
                            "more exact says retained = false, but would be given what the broker "
                            "has kept for the other"));
    EXPECT_THAT(problems_of("[[in]]\nfilter = \"#\"\n[[in]]\nfilter = \"x\"\nretained = true\n"),
                IsEmpty());
}

TEST(Overlap, IsAllowedInATreeThatIsSaidToBeShared)
{
    EXPECT_THAT(
        problems_of("[[out]]\npattern = \"a/#\"\n[[in]]\nfilter = \"a/#\"\nshared = true\n"),
        IsEmpty());
}

TEST(Overlap, OfTwoOutRulesOntoOneTopicIsRefused)
{
    EXPECT_THAT(
        problems_of("[[out]]\npattern = \"a/#\"\nprefix = \"x\"\n"
                    "[[out]]\npattern = \"b\"\nprefix = \"x/a\"\n"),
        ElementsAre("f: [[out]] 1 (line 1) and [[out]] 2 (line 4) can send different tags to "
                    "one topic"));
}

TEST(Rules, AreTriedInTheirOrderAndLeaveTheBridgesOwnTagsOut)
{
    const Configuration result =
        good("[[out]]\npattern = \"a/#\"\nexclude = [\"a/secret\"]\nqos = 0\n"
             "[[out]]\npattern = \"+/+\"\nqos = 2\n[[out]]\npattern = \"bridge/#\"\n");

    EXPECT_EQ(result.rule_for("a/b")->qos, 0);
    EXPECT_EQ(result.rule_for("a/secret")->qos, 2);
    EXPECT_EQ(result.rule_for("b/c/d"), nullptr);
    EXPECT_EQ(result.rule_for("bridge/mqtt/connected"), nullptr);
}

TEST(Example, IsAGoodConfiguration)
{
    EXPECT_THAT(load_configuration(KP_MQTT_EXAMPLE).problems, IsEmpty());
}

TEST(BrokerHost, IsANameOrAnAddressAlone)
{
    const auto problems_of = [](const std::string &host) {
        return parse_configuration("[broker]\nhost = \"" + host + "\"\n[[out]]\npattern = \"a\"\n",
                                   "f")
            .problems;
    };

    EXPECT_THAT(problems_of("mqtts://x"),
                ElementsAre("f:2: host: must be a name or an address alone, without \"mqtts://\"; "
                            "port is a setting of its own, and TLS is what a section [broker.tls] "
                            "asks for"));
    EXPECT_THAT(problems_of("mqtts://x:8883/"), testing::SizeIs(1));
    EXPECT_THAT(problems_of("x:1884"), ElementsAre("f:2: host: must be a name or an address alone; "
                                                   "say port = 1884 in a line of its own"));
    EXPECT_THAT(problems_of("x/y"), testing::SizeIs(1));
    EXPECT_THAT(problems_of(""), testing::SizeIs(1));
    EXPECT_THAT(problems_of("broker.example"), IsEmpty());
    EXPECT_THAT(problems_of("fe80::1"), IsEmpty());
}

TEST(ClientId, MayHaveASlash)
{
    const auto result =
        parse_configuration("[broker]\nclient-id = \"line/7\"\n[[out]]\npattern = \"a\"\n", "f");

    EXPECT_TRUE(result.problems.empty());
    EXPECT_EQ(result.configuration.broker.client_id, "line/7");
}

TEST(Configuration, WithALetterThatTomlHasNoPlaceForIsRefused)
{
    EXPECT_THAT(problems_of("device = \"d\"\nger\xc3\xa4t = 1\n"),
                ElementsAre(testing::StartsWith("f:2: a letter beyond ASCII must stand in")));
}

TEST(OutRules, ThatCanNeverWinAreRefused)
{
    const std::string first = "[[out]]\npattern = \"a/#\"\n";

    EXPECT_THAT(problems_of(first + "[[out]]\npattern = \"a/b/+\"\n"),
                ElementsAre("f: [[out]] 2 (line 3) can never win: [[out]] 1 (line 1) comes before "
                            "it and takes all of its tags"));
    EXPECT_THAT(problems_of(first + first), testing::SizeIs(1));
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a/b/+\"\n" + first), IsEmpty());
    EXPECT_THAT(problems_of(first + "exclude = [\"a/b/c\"]\n[[out]]\npattern = \"a/b/+\"\n"),
                IsEmpty());
}

TEST(OutRules, MayTakeTheBeginningOfTheTagsOffTheirTopics)
{
    const Configuration result = good("[[out]]\npattern = \"plant/line/#\"\n"
                                      "tags = \"plant/line\"\nprefix = \"p/other\"\n"
                                      "[[out]]\npattern = \"own/+\"\ntags = \"own\"\n"
                                      "prefix = \"\"\n");

    EXPECT_EQ(result.out[0].topic_of("plant/line/oven/heat"), "p/other/oven/heat");
    EXPECT_EQ(result.out[0].topic_of("plant/line/oven/_"), "p/other/oven");
    EXPECT_EQ(result.out[1].topic_of("own/$x"), "%24x");
}

TEST(OutRules, TakeOffNoMoreThanAllOfTheirTagsHave)
{
    constexpr const char *problem =
        "f:3: tags: the pattern must begin with it, and go on behind it";

    EXPECT_THAT(problems_of("[[out]]\npattern = \"a/+\"\ntags = \"b\"\n"), ElementsAre(problem));
    EXPECT_THAT(problems_of("[[out]]\npattern = \"+/b\"\ntags = \"a\"\n"), ElementsAre(problem));
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a\"\ntags = \"a\"\n"), ElementsAre(problem));
}

TEST(Overlap, IsFoundWhereTheBeginningOfTheTagsIsTakenOff)
{
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a/x/#\"\ntags = \"a\"\nprefix = \"p\"\n"
                            "[[in]]\nfilter = \"x/+\"\nprefix = \"p\"\ntags = \"t\"\n"),
                ElementsAre(testing::HasSubstr("the first sends p/x/#")));
    EXPECT_THAT(problems_of("[[out]]\npattern = \"a/#\"\ntags = \"a\"\nprefix = \"p\"\n"
                            "[[out]]\npattern = \"b/#\"\ntags = \"b\"\nprefix = \"p\"\n"),
                ElementsAre(testing::HasSubstr("can send different tags to one topic")));
    EXPECT_THAT(problems_of("prefix = \"p\"\nstate-topic = \"p/s/x\"\n"
                            "[[out]]\npattern = \"a/#\"\ntags = \"a\"\n"),
                ElementsAre(testing::HasSubstr("the bridge's own state topic p/s/x")));
}

TEST(Brokers, OfAListHaveWhatTheyDoNotSayFromTheFirst)
{
    const Configuration result = good(R"(
[broker]
host = "one"
port = 1999
credentials-file = "secret"
keep-alive = 10
[[broker.fallback]]
host = "two"
[[broker.fallback]]
host = "three"
credentials-file = "other"
[broker.fallback.tls]
ca-file = "ca.pem"
[[broker.fallback]]
host = "four"
tls = false
port = 5
[[out]]
pattern = "a"
)");

    std::vector<std::string> addresses;
    for (const BrokerSettings *broker : result.brokers())
        addresses.push_back(broker->address() + " " + broker->credentials_file +
                            (broker->tls ? " tls" : ""));
    EXPECT_THAT(addresses, ElementsAre("one:1999 secret", "two:1999 secret", "three:8883 other tls",
                                       "four:5 secret"));
    EXPECT_EQ(result.fallbacks[0].keep_alive_s, 10);
}

TEST(Brokers, OfAListNameTheirProblems)
{
    EXPECT_THAT(problems_of("[[broker.fallback]]\nport = 5\nkeep-alive = 7\ntls = true\n"
                            "[[out]]\npattern = \"a\"\n"),
                testing::UnorderedElementsAre(
                    "f:1: host: is missing", "f:3: keep-alive: unknown setting",
                    "f:4: tls: must be false, or a table, [broker.fallback.tls]"));
}

TEST(SessionExpiry, DoesNotGoWithQosTwoNorWithASharedTree)
{
    const std::string top = "[broker]\nsession-expiry = 60\n";

    EXPECT_THAT(problems_of(top + "[[in]]\nfilter = \"a\"\nqos = 2\n"),
                ElementsAre(testing::HasSubstr("[[in]] 1 (line 3): qos = 2 cannot go with")));
    EXPECT_THAT(problems_of(top + "[[out]]\npattern = \"a\"\nqos = 2\n"), testing::SizeIs(1));
    EXPECT_THAT(problems_of(top + "[[in]]\nfilter = \"a\"\nshared = true\n"),
                ElementsAre(testing::HasSubstr("shared = true cannot go with session-expiry")));
    EXPECT_THAT(problems_of(top + "[[in]]\nfilter = \"a\"\n"), IsEmpty());
}

TEST(AnswersOfARule, MustNotGoWhereTheBridgeSendsOrReceives)
{
    const std::string top = "prefix = \"p\"\n[[out]]\npattern = \"a/#\"\n"
                            "[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\nanswers = ";

    EXPECT_THAT(problems_of(top + "\"r/#\"\n"), IsEmpty());
    EXPECT_THAT(problems_of(top + "\"p/+/b\"\n"),
                ElementsAre("f: [[in]] 1 (line 4): answers = \"p/+/b\" takes topics where [[out]] "
                            "1 (line 2) sends values; answers need topics of their own"));
    EXPECT_THAT(problems_of(top + "\"s/c/d\"\n"),
                ElementsAre(testing::HasSubstr("[[in]] 1 (line 4) receives messages")));
    EXPECT_THAT(problems_of(top + "\"p/$bridge/#\"\n"),
                ElementsAre(testing::HasSubstr("the bridge says its state")));
}
