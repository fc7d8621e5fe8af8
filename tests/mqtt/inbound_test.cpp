#include "inbound/inbound.h"

#include "answers/answers.h"

#include "testing/capture.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

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
          state_(std::move(*StateFile::open("").value)),
          topics_(configuration_, reader_, *state_, pending_),
          shared_(configuration_, reader_, nullptr, *state_, pending_, topics_, 0),
          inbound_(configuration_, reader_, shared_,
                   {.put =
                        [this](const std::string &tag, WriteRequest request) {
                            written_.push_back(tag + "=" + request.sample.value);
                            last_ = std::move(request);
                        },
                    .drop = [this](const auto &tag, bool) { written_.push_back(tag + " dropped"); },
                    .cleared = [this](const auto &tag) { written_.push_back(tag + " lives"); },
                    .set_quality =
                        [this](const auto &tag, uint8_t quality) {
                            written_.push_back(tag + " q=" + std::to_string(quality));
                        },
                    .is_dropping =
                        [this](const auto &tag) {
                            asked_whether_dropping_();
                            return tag == dropping_;
                        },
                    .listeners_for =
                        [this](const Message &message, const InRule &by) {
                            return answers_->listeners_for(message, by);
                        }},
                   counters_)
    {
        inbound_.set_connected(true);
    }

    void receive(const std::string &topic, const std::string &payload,
                 const UserProperties &properties = {})
    {
        inbound_.receive({topic, payload, false, properties, came_for_});
    }
    void reload(const std::string &rules)
    {
        const Configuration before = std::exchange(
            configuration_, parse_configuration("device = \"me\"\n" + rules, "f").configuration);
        inbound_.reload();
    }
    Inbound *operator->()
    {
        return &inbound_;
    }
    void answered_for(const std::string &filter, bool is_made)
    {
        inbound_.answered_for(filter, is_made);
    }
    // What the messages to come say that they came for.
    void came_for(std::vector<uint32_t> subscriptions)
    {
        came_for_ = std::move(subscriptions);
    }
    uint32_t number_of(const std::string &filter) const
    {
        const auto all = inbound_.subscriptions();
        const auto found = std::ranges::find(all, filter, &Subscription::filter);
        return found == all.end() ? 0 : found->number;
    }
    void is_dropping(const std::string &tag)
    {
        dropping_ = tag;
    }
    // What happens just before the inbound way hears whether a tag is about to go.
    void before_is_dropping(std::function<void()> what)
    {
        asked_whether_dropping_ = std::move(what);
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
    unsigned last_messages() const
    {
        return last_.messages;
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
    std::unique_ptr<StateFile> state_;
    PendingNames pending_;
    TopicTable topics_;
    SharedTags shared_;
    Counters counters_;
    std::vector<std::string> written_;
    std::string dropping_;
    std::function<void()> asked_whether_dropping_ = [] {};
    std::vector<uint32_t> came_for_;
    const std::shared_ptr<Answers> answers_ = Answers::make("me/boot", counters_);
    WriteRequest last_;
    Inbound inbound_;
};

std::string repeated(const std::string &text, int times)
{
    std::string all;
    for (int count = 0; count < times; ++count)
        all += text;
    return all;
}

} // namespace

TEST(Inbound, WritesATagOfTheRulesType)
{
    InboundOf inbound("type = \"int16\"\ntags = \"t\"\n");

    inbound.receive("s/a/b", "258");

    EXPECT_THAT(inbound.written(), ElementsAre("t/a/b=\x02\x01"));
    EXPECT_EQ(inbound.last().type, KP_TYPE_INT16);
    EXPECT_EQ(inbound.last().quality, KP_QUALITY_GOOD);
    EXPECT_FALSE(inbound.last_was_declared());
    EXPECT_EQ(inbound.last_messages(), 1u);
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

TEST(Inbound, TakesExtraInformationOfANewTag)
{
    InboundOf plain("");
    InboundOf json("payload = \"json\"\n");

    plain.receive("s/a", "1", {{"xi", "77"}});
    json.receive("s/a", R"({"value":1,"extra":78})");

    EXPECT_EQ(plain.last().extra_info, 77u);
    EXPECT_EQ(json.last().extra_info, 78u);
}

TEST(Inbound, RefusesAQualityThatNoTagCanHave)
{
    InboundOf plain("");
    InboundOf json("payload = \"json\"\n");

    plain.receive("s/a", "1", {{"q", "255"}});
    plain.receive("s/a", "1", {{"q", "300"}});
    plain.receive("s/a", "1", {{"q", "-1"}});
    json.receive("s/a", R"({"value":1,"quality":256})");

    EXPECT_THAT(plain.written(), IsEmpty());
    EXPECT_THAT(json.written(), IsEmpty());
    EXPECT_EQ(plain.counters().refused, 3u);
    EXPECT_EQ(json.counters().refused, 1u);
}

TEST(Inbound, TakesAWholeJsonNumberWithAFractionForAnInteger)
{
    InboundOf inbound("payload = \"json\"\n");

    inbound.receive("s/a", R"({"value":21.0,"type":"int32","quality":2.0})");
    inbound.receive("s/b", R"({"value":-2e1,"type":"int8"})");
    inbound.receive("s/c", R"({"value":21.5,"type":"int32"})");
    inbound.receive("s/d", R"({"value":9007199254740993.0,"type":"int64"})");
    inbound.receive("s/e", R"({"value":21.0,"type":"string"})");

    EXPECT_THAT(inbound.written(),
                ElementsAre("a=" + bytes_of<int32_t>(21), "b=" + bytes_of<int8_t>(-20), "e=21.0"));
    EXPECT_EQ(inbound.counters().refused, 2u);
}

TEST(Inbound, TakesNumbersAsShellsAndOtherProgramsWriteThem)
{
    InboundOf integers("type = \"int32\"\n");
    InboundOf reals("type = \"double\"\n");

    integers.receive("s/a", "50\n");
    integers.receive("s/b", "+5");
    integers.receive("s/c", "21.0");
    reals.receive("s/d", "+2.5\r\n");

    EXPECT_THAT(integers.written(),
                ElementsAre("a=" + bytes_of<int32_t>(50), "b=" + bytes_of<int32_t>(5),
                            "c=" + bytes_of<int32_t>(21)));
    EXPECT_THAT(reals.written(), ElementsAre("d=" + bytes_of(2.5)));
}

TEST(Inbound, StillRefusesWhatIsNoWholeNumber)
{
    InboundOf inbound("type = \"int32\"\n");

    for (const char *text : {"21.5", "5 5", "+-5", ".", "1.", "\n"})
        inbound.receive("s/a", text);

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 6u);
}

TEST(Inbound, CountsEmptyMessages)
{
    InboundOf inbound("");

    inbound.receive("s/a", "");

    EXPECT_EQ(inbound.counters().empty, 1u);
    EXPECT_THAT(inbound.written(), IsEmpty());
}

TEST(Inbound, SaysThatAnotherDeviceMayHaveItsName)
{
    const StderrCapture log;
    InboundOf inbound("");

    inbound.receive("s/a", "x", {{"origin", "me/another-boot"}});

    EXPECT_THAT(log.text(), testing::HasSubstr("has another device the same name?"));
    EXPECT_THAT(inbound.written(), IsEmpty());
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

TEST(Inbound, TakesTheMostExactRuleWhateverTheOrder)
{
    InboundOf inbound("type = \"int16\"\n[[in]]\nfilter = \"c/+\"\nprefix = \"s\"\n"
                      "type = \"int8\"\n[[in]]\nfilter = \"c/x\"\nprefix = \"s\"\n"
                      "type = \"uint8\"\n[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\n");

    inbound.receive("s/c/x", "200");
    inbound.receive("s/c/y", "-1");
    inbound.receive("s/c/y/z", "text");
    inbound.receive("s/d", "257");

    EXPECT_THAT(inbound.written(), ElementsAre("c/x=\xC8", "c/y=\xFF", "c/y/z=text", "d=\x01\x01"));
}

TEST(Inbound, TakesTheLongestValueWithEveryByteEscaped)
{
    InboundOf inbound("payload = \"json\"\n");

    inbound.receive("s/a", "{\"value\":\"" + repeated("\\u0001", KP_MAX_VALUE_SIZE) + "\"}");

    EXPECT_THAT(inbound.written(), ElementsAre("a=" + std::string(KP_MAX_VALUE_SIZE, '\1')));
}

TEST(Inbound, RefusesWhatIsTooLargeWithoutParsingIt)
{
    InboundOf inbound("payload = \"json\"\n");
    StderrCapture log;

    inbound.receive("s/a", "{\"value\":1,\"rest\":\"" + std::string(41'000, ' ') + "\"}");

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 1u);
    EXPECT_THAT(log.text(), testing::HasSubstr("the message on s/a is refused: it has 41021 bytes, "
                                               "more than any value can need"));
}

TEST(Inbound, RefusesMoreTagsThanTheRuleAllows)
{
    InboundOf inbound("max-tags = 1\n");

    inbound.receive("s/a", "x");
    inbound.receive("s/b", "y");
    inbound.receive("s/a", "z");

    EXPECT_THAT(inbound.written(), ElementsAre("a=x", "a=z"));
}

TEST(Inbound, RefusesANameBelowATagOfOthers)
{
    StoreProvider above("a/b");
    InboundOf inbound("");

    inbound.receive("s/a/b/c", "y");

    EXPECT_THAT(inbound.written(), IsEmpty());
    EXPECT_EQ(inbound.counters().refused, 1u);
}

TEST(Inbound, LeavesANameBelowItsOwnTagToTheWriter)
{
    InboundOf inbound("");
    inbound.receive("s/a/b", "x");
    StoreProvider above("a/b");

    inbound.receive("s/a/b/c", "y");

    EXPECT_THAT(inbound.written(), ElementsAre("a/b=x", "a/b/c=y"));
}

TEST(Inbound, TakesTypeAndMaximumFromTheTagThatStandsForTheTopic)
{
    StoreProvider below("a/b");
    StoreProvider beside("a/_", KP_TYPE_UINT8);
    InboundOf inbound("");

    inbound.receive("s/a", "5");

    EXPECT_THAT(inbound.written(), ElementsAre("a=\x05"));
    EXPECT_TRUE(inbound.last_was_declared());
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

TEST(SharedTree, WritesAValueThatComesBeforeItsTagIsGone)
{
    StoreProvider as_if_by_the_bridge("a");
    as_if_by_the_bridge.write("x");
    InboundOf inbound("shared = true\n");

    inbound.is_dropping("a");
    inbound.receive("s/a", "x", {{property::kSourceTime, "900"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a=x"));
    EXPECT_FALSE(inbound.last_was_declared());
}

TEST(SharedTree, WritesAValueThatComesWhileItsTagGoes)
{
    StoreProvider as_if_by_the_bridge("a");
    as_if_by_the_bridge.write("x", 1000, 1, 900);
    InboundOf inbound("shared = true\n");

    inbound.before_is_dropping([&] { as_if_by_the_bridge.leave(); });
    inbound.receive("s/a", "x", {{"q", "1"}, {"sts", "900"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a=x"));
    EXPECT_FALSE(inbound.last_was_declared());
}

TEST(SharedTree, SaysThatATagOfOthersOutlivesItsClearing)
{
    StoreProvider provider("a");
    provider.write("x");
    StoreProvider without_value("b");
    InboundOf inbound("shared = true\n");

    inbound.receive("s/a", "");
    inbound.receive("s/b", "");

    EXPECT_THAT(inbound.written(), ElementsAre("a lives"));
}

TEST(SharedTree, DoesNotAnswerItsOwnClearing)
{
    StoreProvider provider("a");
    provider.write("x");
    InboundOf inbound("shared = true\n");

    inbound.receive("s/a", "", {{"origin", "me/now"}});

    EXPECT_THAT(inbound.written(), IsEmpty());
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

TEST(SharedTree, TakesAnOlderValueThatComesAfterItsOwn)
{
    StoreProvider provider("a");
    provider.write("new", 1000, 1, 900);
    InboundOf inbound("shared = true\n");

    inbound.receive("s/a", "old", {{"q", "1"}, {"sts", "899"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a=old"));
}

TEST(TwoTrees, LetTheNewerValueStayAndOfTwoAsNewThatOfTheGreaterDevice)
{
    StoreProvider provider("a");
    provider.write("mine", 1000, 1, 900);
    InboundOf inbound("shared = true\n[[out]]\npattern = \"#\"\nprefix = \"o\"\n");

    inbound.receive("s/a", "older", {{"sts", "899"}, {"origin", "you/1"}});
    inbound.receive("s/a", "lesser", {{"sts", "900"}, {"origin", "he/1"}});
    inbound.receive("s/a", "greater", {{"sts", "900"}, {"origin", "you/1"}});

    EXPECT_THAT(inbound.written(), ElementsAre("a=greater"));
    EXPECT_EQ(inbound.counters().echoes, 2u);
}

TEST(Subscriptions, CountOnlyTheCopyForTheMostExactRule)
{
    InboundOf inbound("[[in]]\nfilter = \"c/speed\"\nprefix = \"s\"\ntags = \"exact\"\n");

    inbound.came_for({inbound.number_of("s/#")});
    inbound.receive("s/c/speed", "1");
    inbound.came_for({inbound.number_of("s/c/speed")});
    inbound.receive("s/c/speed", "1");

    EXPECT_THAT(inbound.written(), ElementsAre("exact/c/speed=1"));
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

TEST(Subscriptions, HaveTheSameNumbersInEveryRunWhateverOtherRulesThereAre)
{
    const InboundOf one("");
    const InboundOf other("[[in]]\nfilter = \"c/speed\"\nprefix = \"s\"\ntags = \"exact\"\n");

    EXPECT_EQ(one.number_of("s/#"), other.number_of("s/#"));
    EXPECT_NE(other.number_of("s/#"), other.number_of("s/c/speed"));
    EXPECT_EQ(one.number_of("s/#"), 111123125u); // as in every version
}

TEST(Subscriptions, ThatAreRefusedLeaveTheirMessagesToWiderOnes)
{
    InboundOf inbound("[[in]]\nfilter = \"a\"\nprefix = \"s\"\n");

    inbound.answered_for("s/#", true);
    inbound.answered_for("s/a", false);
    inbound.came_for({inbound.number_of("s/#")});
    inbound.receive("s/a", "for the wider one");
    inbound.answered_for("s/a", true);
    inbound.receive("s/a", "a copy");

    EXPECT_THAT(inbound.written(), ElementsAre("a=for the wider one"));
}

TEST(InboundReload, LosesNoCommandUntilTheBrokerKnowsTheNewRule)
{
    InboundOf inbound("");
    inbound.reload("[[in]]\nfilter = \"#\"\nprefix = \"s\"\n"
                   "[[in]]\nfilter = \"a\"\nprefix = \"s\"\n");

    inbound.came_for({inbound.number_of("s/#")});
    inbound.receive("s/a", "early");
    inbound.answered_for("s/a", true);
    inbound.receive("s/a", "copy for the less exact rule");
    inbound.came_for({inbound.number_of("s/a")});
    inbound.receive("s/a", "late");

    EXPECT_THAT(inbound.written(), ElementsAre("a=early", "a=late"));
}

TEST(InboundReload, DropsWhatARuleHasWrittenThatIsGone)
{
    InboundOf inbound("");
    inbound.receive("s/a", "1");
    inbound.reload("[[in]]\nfilter = \"b\"\nprefix = \"s\"\n");

    EXPECT_THAT(inbound.written(), ElementsAre("a=1", "a dropped"));
}

TEST(InboundStaleness, OfAnAwaySenderIsThatOfItsTagsAlone)
{
    InboundOf inbound("quality-when-stale = 3\nsender-state = \"+/$bridge/state\"\n");
    inbound.receive("s/a", "1", {{"origin", "one/boot"}});
    inbound.receive("s/b", "1", {{"origin", "two/boot"}});

    inbound.receive("one/$bridge/state", "offline", {{"origin", "one/boot"}});
    inbound.receive("s/c", "1", {{"origin", "one/boot"}, {"q", "7"}});
    EXPECT_EQ(inbound.last().quality, 3);
    inbound.receive("one/$bridge/state", "online", {{"origin", "one/boot"}});

    EXPECT_THAT(inbound.written(),
                testing::UnorderedElementsAre("a=1", "b=1", "a q=3", "c=1", "a q=1", "c q=7"));
    EXPECT_EQ(inbound.counters().refused, 0u);
}

TEST(InboundStaleness, OfAStateWithoutOriginIsThatOfAllTagsOfTheRule)
{
    InboundOf inbound("quality-when-stale = 0\nsender-state = \"plc/state\"\n");
    inbound.receive("s/a", "1");

    inbound.receive("plc/state", "offline");
    inbound.receive("plc/state", "offline");
    inbound.receive("plc/state", "");

    EXPECT_THAT(inbound.written(), ElementsAre("a=1", "a q=0", "a q=1"));
}

TEST(InboundStaleness, OfALostConnectionEndsWhenAllHasBeenRead)
{
    InboundOf inbound("quality-when-stale = 3\n");
    inbound.receive("s/a", "1");

    inbound->set_connected(false);
    inbound->set_connected(true);
    EXPECT_THAT(inbound.written(), ElementsAre("a=1", "a q=3"));
    inbound->review();

    EXPECT_THAT(inbound.written(), ElementsAre("a=1", "a q=3", "a q=1"));
}

TEST(InboundStaleness, IsNotSaidWithoutAQualityForIt)
{
    InboundOf inbound("");
    inbound.receive("s/a", "1");

    inbound->set_connected(false);

    EXPECT_THAT(inbound.written(), ElementsAre("a=1"));
}
