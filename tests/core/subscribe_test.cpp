// Subscribing to topics and patterns: what is recorded, which tags are made, what counts as unread.
#include "core/mesh.h"
#include "core/topic.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

TEST(PlainSubscription, IsRecordedAndMakesAConsumerTag)
{
    const Handle handle;

    EXPECT_EQ(kp_sub_topic(handle, "a/b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("a/b"));
    EXPECT_THAT(patterns_of(handle), IsEmpty());
    EXPECT_THAT(topics_of(handle), ElementsAre("a/b"));
    EXPECT_EQ(SegmentFile("a/b").u8(at::consumer_refs), 1);
}

TEST(PlainSubscription, GoesToTheHeadOfTheList)
{
    const Handle handle;

    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("b", "a"));
}

TEST(PlainSubscription, IsRecordedTwiceButMakesOneTag)
{
    const Handle handle;

    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("a", "a"));
    EXPECT_THAT(topics_of(handle), ElementsAre("a"));
}

TEST(PlainSubscription, MakesNoTagBesideAProvider)
{
    const Handle handle;
    kp_tag_t *provider = kp_tag_provider_new(handle, "a", KP_TYPE_INT8, 0, 0);

    EXPECT_EQ(kp_sub_topic(handle, "a"), 0);

    EXPECT_EQ(kp_get_tag(handle, "a"), provider);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
}

TEST(PlainSubscription, ThatAPatternCoversIsNotRecorded)
{
    const Handle handle;
    follow(handle, "a/#");

    EXPECT_EQ(kp_sub_topic(handle, "a/b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
    EXPECT_THAT(topics_of(handle), IsEmpty());
}

TEST(PlainSubscription, SaysThatItsTagCannotBeMadeAndStaysRecorded)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_sub_topic(handle, "../a"), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: topic is invalid\n\033[0mkp_tag_consumer_new fail\n");
    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("../a"));
}

TEST(PlainSubscription, SpeaksPlainlyWhateverTheLevel)
{
    const Handle handle;
    StderrCapture log;
    kp_xlog_set_user_level(KP_LEVEL_OFF);

    EXPECT_EQ(kp_sub_topic(handle, ""), -1);

    kp_xlog_set_user_level(KP_LEVEL_WARN);
    EXPECT_EQ(log.text(), "kp_tag_consumer_new fail\n");
}

TEST(PatternSubscription, IsRecordedAtTheHeadOfItsList)
{
    const Handle handle;

    follow(handle, "a/+");
    follow(handle, "b/#");

    EXPECT_THAT(patterns_of(handle), ElementsAre("b/#", "a/+"));
    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
}

TEST(PatternSubscription, ThatAnEarlierPatternCoversIsNotRecorded)
{
    const Handle handle;
    follow(handle, "a/#");

    EXPECT_EQ(kp_sub_topic(handle, "a/+"), 0);
    EXPECT_EQ(kp_sub_topic(handle, "a/#"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("a/#"));
}

TEST(PatternSubscription, OfAllLevelsIsCoveredByAPlusInItsPlace)
{
    const Handle handle;
    follow(handle, "a/+");

    EXPECT_EQ(kp_sub_topic(handle, "a/#"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("a/+"));
}

TEST(Subscription, WithoutAHandleSucceedsSilently)
{
    StderrCapture log;

    EXPECT_EQ(kp_sub_topic(nullptr, "a"), 0);
    EXPECT_EQ(kp_sub_topic(nullptr, nullptr), 0);

    EXPECT_EQ(log.text(), "");
}

TEST(Subscription, WithoutATopicFails)
{
    const Handle handle;

    EXPECT_EQ(kp_sub_topic(handle, nullptr), -1);

    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
}

TEST(Subscription, OwnsACopyOfTheText)
{
    const Handle handle;
    std::string topic = "a/b";

    ASSERT_EQ(kp_sub_topic(handle, topic.c_str()), 0);
    topic = "?/?";

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("a/b"));
}

TEST(Subscription, FailsWhenItCannotBeRecorded)
{
    const Handle handle;
    const Holdings before = Holdings::now();
    const FailNext copy(Call::strdup);

    EXPECT_EQ(kp_sub_topic(handle, "a"), -1);

    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
    EXPECT_EQ(Holdings::now(), before);
}

TEST(AutomaticSubscription, MakesATagForATopicThatAPatternCovers)
{
    const Handle handle;
    follow(handle, "a/+");

    EXPECT_EQ(kp_sub_plain_topic(handle, "a/b"), 0);

    EXPECT_THAT(topics_of(handle), ElementsAre("a/b"));
    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
}

TEST(AutomaticSubscription, FailsSilentlyWhenNoPatternCoversTheTopic)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a/b"), 0);
    StderrCapture log;

    EXPECT_EQ(kp_sub_plain_topic(handle, "a/b"), -1);
    EXPECT_EQ(kp_sub_plain_topic(handle, nullptr), -1);

    EXPECT_EQ(log.text(), "");
}

TEST(AutomaticSubscription, FailsWhenItsTagCannotBeMade)
{
    const Handle handle;
    follow(handle, "#");
    StderrCapture log;
    const FailFrom opening(Call::syscall, 1);

    EXPECT_EQ(kp_sub_plain_topic(handle, "a"), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_new_shm: open shm(increase 'ulimit -n'): Too many open "
              "files\n\033[0mkp_tag_consumer_new fail\n");
}

TEST(AutomaticSubscription, NeedsAHandleAndSaysSoPlainly)
{
    StderrCapture log;
    kp_xlog_set_user_level(KP_LEVEL_OFF);

    EXPECT_EQ(kp_sub_plain_topic(nullptr, "a"), -1);
    EXPECT_EQ(kp::sub_plain_topic(nullptr, nullptr), -1);

    kp_xlog_set_user_level(KP_LEVEL_WARN);
    EXPECT_EQ(log.text(), "null kp\nnull kp\n");
}

TEST(TagOfASubscription, HasNotReadWhatWasWrittenSinceTheFirstSubscription)
{
    const Handle handle;
    (void)kp_sub_topic(nullptr, nullptr); // the first subscription, if there was none
    Writer writer("a");
    writer.write(1);

    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);

    EXPECT_EQ(kp_tag_need_read(kp_get_tag(handle, "a")), 1);
}

} // namespace
