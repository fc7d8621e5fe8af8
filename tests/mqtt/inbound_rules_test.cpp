#include "inbound/inbound_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Configuration configuration_of(const std::string &rules)
{
    return parse_configuration("device = \"me\"\n" + rules, "f").configuration;
}

const std::string kRuleOfAll = "[[in]]\nfilter = \"#\"\nprefix = \"s\"\n";
const std::string kRuleOfA = "[[in]]\nfilter = \"a\"\nprefix = \"s\"\n";
const std::string kRuleOfB = "[[in]]\nfilter = \"b\"\nprefix = \"s\"\n";

// The rules, and the configuration that they follow.
class RulesOf {
  public:
    explicit RulesOf(const std::string &text) : configuration_(configuration_of(text))
    {
    }
    InboundRules *operator->()
    {
        return &rules_;
    }
    std::vector<std::string> reload(const std::string &text)
    {
        const Configuration before = std::exchange(configuration_, configuration_of(text));
        return rules_.reload();
    }
    void take(const std::string &topic, const std::string &name, bool is_own = true)
    {
        TakenTag taken;
        taken.is_own = is_own;
        rules_.rule_for(topic)->tags[name] = taken;
    }

  private:
    Configuration configuration_;
    InboundRules rules_{configuration_};
};

Message message_for(std::vector<uint32_t> subscriptions)
{
    Message message;
    message.subscriptions = std::move(subscriptions);
    return message;
}

} // namespace

TEST(InboundRules, KeepNumberAndTagsOfARuleThatStays)
{
    RulesOf rules(kRuleOfA);
    rules.take("s/a", "a");
    const uint32_t number = rules->rule_for("s/a")->number;

    EXPECT_THAT(rules.reload(kRuleOfB + kRuleOfA), IsEmpty());

    EXPECT_EQ(rules->rule_for("s/a")->number, number);
    EXPECT_TRUE(rules->rule_for("s/a")->tags.contains("a"));
    EXPECT_TRUE(rules->rule_for("s/a")->has_subscription);
    EXPECT_FALSE(rules->rule_for("s/b")->has_subscription);
}

TEST(InboundRules, NameTheOwnTagsThatNoRuleHasAnyMore)
{
    RulesOf rules(kRuleOfA + kRuleOfB);
    rules.take("s/a", "own");
    rules.take("s/a", "of others", false);
    rules.take("s/a", "also of b");
    rules.take("s/b", "also of b");

    EXPECT_THAT(rules.reload(kRuleOfB), ElementsAre("own"));
}

TEST(InboundRules, AskOnceForAStateThatSeveralRulesName)
{
    const std::string state = "sender-state = \"+/state\"\n";
    RulesOf rules(kRuleOfA + state + kRuleOfB + state);

    const auto subscriptions = rules->subscriptions();

    ASSERT_EQ(subscriptions.size(), 3u);
    EXPECT_EQ(subscriptions[2].filter, "+/state");
    EXPECT_TRUE(subscriptions[2].at_last);
    EXPECT_NE(subscriptions[2].number, 0u);
}

TEST(InboundRules, TakeACopyOnlyForTheRuleThatItCameFor)
{
    RulesOf rules(kRuleOfAll + kRuleOfA);
    const InboundRule &exact = *rules->rule_for("s/a");
    const InboundRule &of_all = *rules->rule_for("s/else");

    EXPECT_TRUE(exact.is_meant_by(message_for({exact.number})));
    EXPECT_TRUE(exact.is_meant_by(message_for({of_all.number, exact.number})));
    EXPECT_TRUE(exact.is_meant_by(message_for({}))); // the broker does not say
    EXPECT_FALSE(exact.is_meant_by(message_for({of_all.number})));
}

TEST(InboundRules, TakeAnyCopyForANewRuleUntilTheBrokerHasAnswered)
{
    RulesOf rules(kRuleOfAll);
    (void)rules.reload(kRuleOfAll + kRuleOfA);
    const InboundRule &is_new = *rules->rule_for("s/a");
    const Message copy = message_for({rules->rule_for("s/else")->number});

    EXPECT_TRUE(is_new.is_meant_by(copy));
    rules->answered_for("s/a", true);
    EXPECT_FALSE(is_new.is_meant_by(copy));
}

TEST(InboundRules, KnowWhatIsBelowAWrittenTag)
{
    RulesOf rules(kRuleOfAll);
    rules.take("s/a/b", "a/b");

    EXPECT_TRUE(rules->is_below_a_written_tag("a/b/c/d"));
    EXPECT_FALSE(rules->is_below_a_written_tag("a/b"));
    EXPECT_FALSE(rules->is_below_a_written_tag("a/bc/d"));
}

TEST(InboundRules, DisownATagOnce)
{
    RulesOf rules(kRuleOfAll);
    rules.take("s/a", "a");

    EXPECT_TRUE(rules->disown({"a/_", "a"}));
    EXPECT_FALSE(rules->disown({"a/_", "a"}));
    EXPECT_FALSE(rules->disown({"unknown"}));
}
