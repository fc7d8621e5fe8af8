#include "answers/answers.h"

#include "testing/readable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using kptest::is_readable;
using testing::IsEmpty;

namespace {

InRule rule_with(const std::string &answers)
{
    InRule rule;
    rule.answers = answers;
    return rule;
}

Message asking(const std::string &response_topic, const std::string &correlation = "")
{
    Message message;
    message.topic = "s/speed";
    message.response_topic = response_topic;
    message.correlation = correlation;
    return message;
}

} // namespace

TEST(Answers, GoWhereTheCommandAsksForThemWithWhatItWantsBack)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);
    const WhenDone questions =
        answers->listeners_for(asking("r/one", "number 1"), rule_with("r/+"));
    ASSERT_EQ(questions.size(), 1u);

    questions[0]("");

    EXPECT_TRUE(is_readable(answers->fd()));
    const auto answer = answers->next();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->topic, "r/one");
    EXPECT_EQ(answer->correlation, "number 1");
    EXPECT_EQ(answer->payload, R"({"accepted":true,"topic":"s/speed"})");
    EXPECT_FALSE(answer->retain);
    EXPECT_FALSE(answers->next());
    EXPECT_FALSE(is_readable(answers->fd()));
}

TEST(Answers, SayWhyACommandWasRefusedOnceOnly)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);
    WhenDone questions = answers->listeners_for(asking("r/one"), rule_with("r/#"));

    questions[0]("it is \"wrong\"");
    questions.clear();

    EXPECT_EQ(answers->next()->payload,
              R"({"accepted":false,"topic":"s/speed","reason":"it is \"wrong\""})");
    EXPECT_FALSE(answers->next());
}

TEST(Answers, SayThatACommandWasDropped)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);

    answers->listeners_for(asking("r/one"), rule_with("r/#")).clear();

    EXPECT_THAT(answers->next()->payload, testing::HasSubstr("it was dropped before"));
}

TEST(Answers, GoNowhereElseThanTheRuleAllows)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);

    EXPECT_THAT(answers->listeners_for(asking("r/one"), rule_with("")), IsEmpty());
    EXPECT_THAT(answers->listeners_for(asking(""), rule_with("r/#")), IsEmpty());
    EXPECT_THAT(answers->listeners_for(asking("other"), rule_with("r/#")), IsEmpty());
    EXPECT_THAT(answers->listeners_for(asking("r/+"), rule_with("r/#")), IsEmpty());
    EXPECT_THAT(answers->listeners_for(asking("$SYS/x"), rule_with("#")), IsEmpty());
    EXPECT_THAT(answers->listeners_for(asking("r/one", std::string(1025, 'x')), rule_with("r/#")),
                IsEmpty());
    EXPECT_FALSE(answers->next());
}

TEST(Answers, AreBoundedUntilTheBrokerHasThem)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);
    const InRule rule = rule_with("r/#");
    WhenDone questions;
    for (size_t count = 0; count < Answers::kMostOpen; ++count)
        questions.push_back(answers->listeners_for(asking("r/x"), rule).at(0));
    EXPECT_THAT(answers->listeners_for(asking("r/x"), rule), IsEmpty());
    questions.clear();
    EXPECT_THAT(answers->listeners_for(asking("r/x"), rule), IsEmpty());

    answers->sent(*answers->next(), 7);
    EXPECT_THAT(answers->listeners_for(asking("r/x"), rule), IsEmpty());
    EXPECT_TRUE(answers->acknowledged(7, {}));

    EXPECT_EQ(answers->listeners_for(asking("r/x"), rule).size(), 1u);
}

TEST(Answers, ThatTheBrokerHasNotAcknowledgedGoAgainOnTheNextConnection)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);
    answers->listeners_for(asking("r/one"), rule_with("r/#"))[0]("");
    answers->sent(*answers->next(), 7);

    answers->connection_lost();

    EXPECT_FALSE(answers->acknowledged(7, {}));
    EXPECT_EQ(answers->next()->topic, "r/one");
}

TEST(Answers, ThatTheBrokerRefusesAreCounted)
{
    Counters counters;
    const auto answers = Answers::make("me/boot", counters);
    answers->listeners_for(asking("r/one"), rule_with("r/#"))[0]("");
    answers->sent(*answers->next(), 7);

    EXPECT_TRUE(answers->acknowledged(7, {0x87, "Not authorized"}));

    EXPECT_EQ(counters.refused, 1u);
    EXPECT_FALSE(answers->next());
}
