#include "writing/write_rules.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using kp::web::Token;
using kp::web::Verdict;
using kp::web::verdict;
using kp::web::WriteRule;
using testing::HasSubstr;

namespace {

const std::string kFirst = "0123456789abcdef";
const std::string kSecond(Token::kMostBytes, 'z');

auto token_of(const std::string &text, mode_t mode = 0600)
{
    const std::string path = "/run/token";
    std::ofstream(path) << text;
    std::filesystem::permissions(path, std::filesystem::perms(mode));
    return Token::read(path);
}

TEST(WebToken, IsTheOnlyLineOfItsFile)
{
    EXPECT_TRUE(token_of(kFirst).value->is(kFirst));
    EXPECT_TRUE(token_of(kFirst + "\r\n").value->is(kFirst));
    EXPECT_TRUE(token_of(kSecond + "\n").value->is(kSecond));
}

TEST(WebToken, IsItselfAlone)
{
    const Token token = *token_of(kFirst).value;

    EXPECT_FALSE(token.is(""));
    EXPECT_FALSE(token.is(kFirst.substr(1)));
    EXPECT_FALSE(token.is(kFirst + "x"));
    EXPECT_FALSE(token.is(kFirst + '\0'));
    EXPECT_FALSE(token.is("1123456789abcdef"));
    EXPECT_FALSE(token.is("0123456789abcdeg"));
    EXPECT_FALSE(token.is(kFirst + std::string(Token::kMostBytes, '\0')));
    EXPECT_FALSE(token_of(kSecond).value->is(kSecond + "z"));
}

TEST(WebToken, IsRefusedWhereItCouldBeGuessedOrMisread)
{
    const std::string why = "a token is one line of 16 to 256 visible ASCII characters";

    for (const std::string &text : {std::string(), kFirst.substr(1), kSecond + "z",
                                    std::string("two words and more"), kFirst + "\n" + kFirst})
        EXPECT_THAT(token_of(text).problem, HasSubstr(why)) << text;
}

TEST(WebToken, IsRefusedFromAFileThatOthersCanRead)
{
    EXPECT_THAT(token_of(kFirst, 0644).problem, HasSubstr("others can read or change it"));
    EXPECT_THAT(token_of(kFirst, 0620).problem, HasSubstr("others can read or change it"));
    EXPECT_TRUE(token_of(kFirst, 0640));
    EXPECT_THAT(Token::read("/run").problem, HasSubstr("/run: is no file"));
    EXPECT_THAT(Token::read("/run/none").problem, HasSubstr("No such file"));
}

TEST(WebGate, LetsWriteWhatTheTokensRulesCover)
{
    const std::vector<WriteRule> rules = {{{"a/#"}, *token_of(kFirst).value},
                                          {{"b/+", "c"}, *token_of(kSecond).value},
                                          {{"d"}, *token_of(kFirst).value}};

    EXPECT_EQ(verdict(rules, "Bearer " + kFirst, "a/b/c"), Verdict::may_write);
    EXPECT_EQ(verdict(rules, "bearer  " + kFirst, "d"), Verdict::may_write);
    EXPECT_EQ(verdict(rules, "Bearer " + kSecond, "c"), Verdict::may_write);
    EXPECT_EQ(verdict(rules, "Bearer " + kSecond, "a/b"), Verdict::other_topics);
    EXPECT_EQ(verdict(rules, "Bearer " + kFirst, "b/c"), Verdict::other_topics);
    EXPECT_EQ(verdict(rules, "Bearer " + kFirst + " ", "d"), Verdict::unknown_token);
    EXPECT_EQ(verdict(rules, "Bearer 0123456789abcdeF", "d"), Verdict::unknown_token);
    EXPECT_EQ(verdict(rules, "Basic " + kFirst, "d"), Verdict::no_token);
    EXPECT_EQ(verdict(rules, "Bearer ", "d"), Verdict::no_token);
    EXPECT_EQ(verdict(rules, "", "d"), Verdict::no_token);
    EXPECT_EQ(verdict({}, "Bearer " + kFirst, "d"), Verdict::unknown_token);
}

} // namespace
