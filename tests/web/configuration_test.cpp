#include "config/configuration.h"
#include "testing/file_text.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>

using kp::web::parse_configuration;
using Problems = std::vector<std::string>;

namespace {

TEST(WebConfiguration, HasDefaultsThatShowAllToThisMachineAlone)
{
    const auto [configuration, problems] = parse_configuration("", "f");

    EXPECT_EQ(problems, Problems{});
    ASSERT_EQ(configuration.listen.size(), 1U);
    EXPECT_EQ(configuration.listen[0].text(), "127.0.0.1:8420");
    EXPECT_TRUE(configuration.shown().covers("a/b"));
    EXPECT_TRUE(configuration.metrics.empty());
}

TEST(WebConfiguration, TakesAddressesOfTheLoopbackAndUnixSockets)
{
    const auto [configuration, problems] =
        parse_configuration("listen = [\"[::1]:80\", \"127.1.2.3:0\", \"unix:/run/s\"]", "f");

    EXPECT_EQ(problems, Problems{});
    ASSERT_EQ(configuration.listen.size(), 3U);
    EXPECT_EQ(configuration.listen[0].text(), "[::1]:80");
    EXPECT_EQ(configuration.listen[1].text(), "127.1.2.3:0");
    EXPECT_EQ(configuration.listen[2].text(), "unix:/run/s");
}

TEST(WebConfiguration, RefusesToListenElsewhere)
{
    const auto problem = [](const std::string &address) {
        return parse_configuration("listen = [\"" + address + "\"]", "f").problems;
    };

    EXPECT_EQ(problem("0.0.0.0:80"),
              Problems{"f:1: listen: \"0.0.0.0:80\" is not on the loopback; a reverse proxy serves "
                       "other machines"});
    EXPECT_EQ(
        problem("127.0.0.1"),
        Problems{"f:1: listen: \"127.0.0.1\" must be as \"127.0.0.1:8420\" or \"unix:/PATH\""});
    EXPECT_EQ(problem("127.0.0.1:70000"),
              Problems{"f:1: listen: \"127.0.0.1:70000\" must be as \"127.0.0.1:8420\" or "
                       "\"unix:/PATH\""});
    EXPECT_EQ(problem("unix:s"),
              Problems{"f:1: listen: \"unix:s\" must name a socket by a whole path"});
}

TEST(WebConfiguration, NamesEachMistakeWithItsLine)
{
    const auto problems = parse_configuration("rate = 1000\n"
                                              "show = [\"a/#/b\"]\n"
                                              "colour = 1\n"
                                              "[limits]\n"
                                              "clients = 0\n",
                                              "f")
                              .problems;

    ASSERT_EQ(problems.size(), 4U);
    EXPECT_EQ(problems[0].substr(0, 9), "f:2: show");
    EXPECT_EQ(problems[1], "f:1: rate: must be a number from 0.1 to 100");
    EXPECT_EQ(problems[2], "f:5: clients: must be a whole number from 1 to 1000");
    EXPECT_EQ(problems[3], "f:3: colour: unknown setting");
}

// Gives the text of the file with its settings, which are comments there, as settings.
std::string with_settings_of(const std::string &path)
{
    return std::regex_replace(kptest::file_text(path), std::regex("(^|\n)# (\\[|[a-z-]+ = )"),
                              "$1$2");
}

TEST(WebConfiguration, HasAFileThatStatesTheDefaults)
{
    const auto shipped = kp::web::load_configuration(KP_WEB_CONFIGURATION);
    const auto [stated, problems] =
        parse_configuration(with_settings_of(KP_WEB_CONFIGURATION), "f");
    const auto usual = parse_configuration("", "f").configuration;

    EXPECT_EQ(shipped.problems, Problems{});
    EXPECT_EQ(shipped.configuration.limits.clients, usual.limits.clients);
    EXPECT_EQ(problems, Problems{});
    ASSERT_EQ(stated.listen.size(), 1U);
    EXPECT_EQ(stated.listen[0].text(), usual.listen[0].text());
    EXPECT_EQ(stated.hosts, usual.hosts);
    EXPECT_EQ(stated.show, usual.show);
    EXPECT_EQ(stated.hide, usual.hide);
    EXPECT_EQ(stated.metrics, usual.metrics);
    EXPECT_EQ(stated.rate, usual.rate);
    EXPECT_EQ(stated.limits.clients, usual.limits.clients);
    EXPECT_EQ(stated.limits.topics, usual.limits.topics);
    EXPECT_EQ(stated.limits.url_bytes, usual.limits.url_bytes);
    EXPECT_EQ(stated.limits.request_time, usual.limits.request_time);
}

TEST(WebConfiguration, LetsNobodyWriteWithoutAWholeRule)
{
    const auto [configuration, problems] = parse_configuration("[[write]]\n"
                                                               "topics = []\n"
                                                               "token-file = \"token\"\n"
                                                               "[[write]]\n"
                                                               "topics = [\"a/#\"]\n"
                                                               "token-file = \"/run/none\"\n"
                                                               "token = \"t\"\n",
                                                               "f");

    EXPECT_EQ(problems,
              (Problems{"f:2: topics: patterns are needed, as [\"a/#\"]",
                        "f:3: token-file: a whole path is needed", "f:7: token: unknown setting",
                        "f:6: token-file: /run/none: No such file or directory"}));
    EXPECT_TRUE(configuration.write.empty());
}

TEST(WebConfiguration, TellsWhereItCannotBeRead)
{
    EXPECT_EQ(parse_configuration("a = ", "f").problems.size(), 1U);
    EXPECT_EQ(kp::web::load_configuration("/run/none").problems,
              Problems{"/run/none: No such file or directory"});
    EXPECT_EQ(kp::web::load_configuration("/run").problems, Problems{"/run: Is a directory"});
}

} // namespace
