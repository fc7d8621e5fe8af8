#include "inbound.h"

#include "store_fixture.h"
#include "testing/segment_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class InboundOf {
  public:
    explicit InboundOf(const std::string &rule)
        : configuration_(parse_configuration("device = \"me\"\n[[in]]\nfilter = \"#\"\n"
                                             "prefix = \"s\"\n" +
                                                 rule,
                                             "f")
                             .configuration),
          inbound_(configuration_, reader_,
                   {[this](const std::string &tag, WriteRequest request) {
                        written_.push_back(tag + "=" + request.sample.value);
                        last_ = std::move(request);
                    },
                    [this](const std::string &tag) { written_.push_back(tag + " dropped"); },
                    [this](const std::string &tag) { written_.push_back(tag + " is newer"); }},
                   counters_)
    {
    }

    void receive(const std::string &topic, const std::string &payload,
                 const UserProperties &properties = {})
    {
        inbound_.receive({topic, payload, false, properties});
    }
    const std::vector<std::string> &written() const
    {
        return written_;
    }
    const Sample &last() const
    {
        return last_.sample;
    }
    bool last_was_declared() const
    {
        return last_.is_declared;
    }
    const Counters &counters() const
    {
        return counters_;
    }
    const Inbound &operator*() const
    {
        return inbound_;
    }

  private:
    Configuration configuration_;
    StoreReader reader_;
    Counters counters_;
    std::vector<std::string> written_;
    WriteRequest last_;
    Inbound inbound_;
};

} // namespace

TEST(Inbound, WritesATagOfTheRulesType)
{
    InboundOf inbound("type = \"int16\"\ntags = \"t\"\n");

    inbound.receive("s/a/b", "258");

    EXPECT_THAT(inbound.written(), ElementsAre("t/a/b=\x02\x01"));
    EXPECT_EQ(inbound.last().type, KP_TYPE_INT16);
    EXPECT_EQ(inbound.last().quality, KP_QUALITY_GOOD);
    EXPECT_FALSE(inbound.last_was_declared());
    EXPECT_EQ(inbound.counters().in, 1u);
}

TEST(Inbound, TakesTypeAndMaximumFromATagThatExists)
{
    StoreProvider provider("a", KP_TYPE_STRING, 3);
    InboundOf inbound("type = \"double\"\n");

    inbound.receive("s/a", "abc");
    inbound.receive("s/a", "abcd");

    EXPECT_THAT(inbound.written(), ElementsAre("a=abc"));
    EXPECT_EQ(inbound.last().extra_info, 7u);
    EXPECT_TRUE(inbound.last_was_declared());
    EXPECT_EQ(inbound.counters().refused, 1u);
}

TEST(Inbound, TakesQualityTypeAndSourceTimeFromTheProperties)
{
    InboundOf inbound("");

    inbound.receive("s/a", "1", {{"type", "uint8"}, {"q", "9"}, {"sts", "77"}});

    EXPECT_EQ(inbound.last().type, KP_TYPE_UINT8);
    EXPECT_EQ(inbound.last().quality, 9);
    EXPECT_EQ(inbound.last().source_ts, 77u);
}

TEST(Inbound, RefusesWhatCannotBeConverted)
{
    InboundOf inbound("type = \"uint8\"\n");

    inbound.receive("s/a", "256");
    inbound.receive("s/a", "red");
    inbound.receive("s/a/$x", "1");

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 3u);
}

TEST(Inbound, RefusesMoreTagsThanTheRuleAllows)
{
    InboundOf inbound("max-tags = 1\n");

    inbound.receive("s/a", "x");
    inbound.receive("s/b", "y");
    inbound.receive("s/a", "z");

    EXPECT_THAT(inbound.written(), ElementsAre("a=x", "a=z"));
}

TEST(Inbound, PutsAValueBesideWhatIsBelowItsName)
{
    StoreProvider below("a/b");
    InboundOf inbound("");

    inbound.receive("s/a", "x");
    inbound.receive("s/a/b/c", "y");

    EXPECT_THAT(inbound.written(), ElementsAre("a/_=x"));
    EXPECT_EQ(inbound.counters().refused, 1u);
}

TEST(Inbound, NeverWritesTheBridgesOwnTags)
{
    InboundOf inbound("");

    inbound.receive("s/bridge/mqtt/connected", "true");

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 1u);
}

TEST(Inbound, DropsItsOwnMessagesWhateverTheBoot)
{
    InboundOf inbound("");

    inbound.receive("s/a", "x", {{"origin", "me/earlier"}});
    inbound.receive("s/a", "y", {{"origin", "me-too/earlier"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a=y"));
    EXPECT_EQ(inbound.counters().echoes, 1u);
}

TEST(Inbound, IgnoresTheClearingOfACommand)
{
    InboundOf inbound("");

    inbound.receive("s/a", "");

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 0u);
}

TEST(SharedTree, DropsATagWithItsTopic)
{
    InboundOf inbound("shared = true\n");
    inbound.receive("s/a", "x");

    inbound.receive("s/a", "");
    inbound.receive("s/b", "");

    EXPECT_THAT(inbound.written(), ElementsAre("a=x", "a dropped"));
}

TEST(SharedTree, IgnoresWhatTheTagHasAlready)
{
    StoreProvider provider("a");
    provider.write("x", 1000, 1, 900);
    InboundOf inbound("shared = true\n");

    inbound.receive("s/a", "x", {{"q", "1"}, {"sts", "900"}});

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().echoes, 1u);
}

TEST(SharedTree, AnswersAnOlderValueWithItsOwn)
{
    StoreProvider provider("a");
    provider.write("new", 1000, 1, 900);
    InboundOf inbound("shared = true\n");

    inbound.receive("s/a", "old", {{"q", "1"}, {"sts", "899"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a is newer"));
}

TEST(Subscriptions, AskForRetainedMessagesOnlyWhereTheRuleDoes)
{
    InboundOf commands("");
    InboundOf states("retained = true\nqos = 2\n");

    EXPECT_FALSE((*commands).subscriptions()[0].retained);
    EXPECT_TRUE((*states).subscriptions()[0].retained);
    EXPECT_EQ((*states).subscriptions()[0].filter, "s/#");
    EXPECT_EQ((*states).subscriptions()[0].qos, 2);
}
