// Cancelling subscriptions: of plain topics, and of patterns with the rebuild that follows.
#include "core/mesh.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

TEST(PlainUnsubscription, DestroysTheTag)
{
    const Handle handle;
    const Holdings before = Holdings::now();
    ASSERT_EQ(kp_sub_topic(handle, "a/b"), 0);

    EXPECT_EQ(kp_unsub_topic(handle, "a/b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_EQ(Holdings::now(), before);
}

TEST(PlainUnsubscription, RemovesTheNewestOfEqualSubscriptions)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "b"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);

    EXPECT_EQ(kp_unsub_topic(handle, "a"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("b", "a"));
    EXPECT_THAT(topics_of(handle), ElementsAre("b"));
}

TEST(PlainUnsubscription, LeavesTheTagToAPatternThatCoversIt)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a/b"), 0);
    follow(handle, "a/+");

    EXPECT_EQ(kp_unsub_topic(handle, "a/b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), IsEmpty());
    EXPECT_THAT(topics_of(handle), ElementsAre("a/b"));
}

TEST(PlainUnsubscription, DestroysAProviderTagThatWasNeverSubscribed)
{
    const Handle handle;
    ASSERT_NE(kp_tag_provider_new(handle, "a", KP_TYPE_INT8, 0, 0), nullptr);

    EXPECT_EQ(kp_unsub_topic(handle, "a"), 0);

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(PlainUnsubscription, OfAnUnknownTopicChangesNothing)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);
    StderrCapture log;

    EXPECT_EQ(kp_unsub_topic(handle, "b"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("a"));
    EXPECT_THAT(topics_of(handle), ElementsAre("a"));
    EXPECT_EQ(log.text(), "");
}

TEST(PlainUnsubscription, MayBeGivenTheTagsOwnString)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);

    EXPECT_EQ(kp_unsub_topic(handle, kp_tag_get_topic(kp_get_tag(handle, "a"))), 0);

    EXPECT_THAT(topics_of(handle), IsEmpty());
}

TEST(Unsubscription, IsSafeWithoutAHandleOrATopic)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_unsub_topic(nullptr, "a"), 0);
    EXPECT_EQ(kp_unsub_topic(nullptr, nullptr), 0);
    EXPECT_EQ(kp_unsub_topic(handle, nullptr), 0);

    EXPECT_EQ(log.text(), "");
}

TEST(PatternUnsubscription, OfAPatternThatIsNotSubscribedChangesNothing)
{
    const Handle handle;
    follow(handle, "a/+");
    follow(handle, "b/+");
    kp_tag_t *tag = kp_tag_consumer_new(handle, "c");

    EXPECT_EQ(kp_unsub_topic(handle, "a/#"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("b/+", "a/+"));
    EXPECT_EQ(kp_get_tag(handle, "c"), tag);
}

TEST(PatternUnsubscription, DestroysTheTagsThatNothingElseKeeps)
{
    const Handle handle;
    const Writer first("a/b");
    const Writer second("c/d");
    ASSERT_EQ(kp_sub_topic(handle, "a/+"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "c/+"), 0);

    EXPECT_EQ(kp_unsub_topic(handle, "a/+"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("c/+"));
    EXPECT_THAT(topics_of(handle), ElementsAre("c/d"));
}

TEST(PatternUnsubscription, DestroysProviderTagsForGood)
{
    const Handle handle;
    follow(handle, "a/+");
    ASSERT_NE(kp_tag_provider_new(handle, "p", KP_TYPE_INT8, 0, 0), nullptr);

    EXPECT_EQ(kp_unsub_topic(handle, "a/+"), 0);

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_FALSE(SegmentFile("p").exists());
}

TEST(PatternUnsubscription, ReversesBothLists)
{
    const Handle handle;
    follow(handle, "a/+");
    follow(handle, "b/+");
    follow(handle, "c/+");
    follow(handle, "gone/+");
    ASSERT_EQ(kp_sub_topic(handle, "x"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "y"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "z"), 0);
    ASSERT_THAT(patterns_of(handle), ElementsAre("gone/+", "c/+", "b/+", "a/+"));

    EXPECT_EQ(kp_unsub_topic(handle, "gone/+"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("a/+", "b/+", "c/+"));
    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("x", "y", "z"));
    EXPECT_THAT(topics_of(handle), UnorderedElementsAre("x", "y", "z"));
}

TEST(PatternUnsubscription, DropsPlainTopicsThatAPatternStillCovers)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a/b"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "x"), 0);
    follow(handle, "a/+");
    follow(handle, "gone/+");

    EXPECT_EQ(kp_unsub_topic(handle, "gone/+"), 0);

    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("x"));
}

// Subscribed in this order both are recorded; rebuilt from the newest, the wider one comes first.
TEST(PatternUnsubscription, DropsPatternsThatAWiderOneCoversWhenItComesFirst)
{
    const Handle handle;
    follow(handle, "a/b/+");
    follow(handle, "a/#");
    follow(handle, "gone/+");
    ASSERT_THAT(patterns_of(handle), ElementsAre("gone/+", "a/#", "a/b/+"));

    EXPECT_EQ(kp_unsub_topic(handle, "gone/+"), 0);

    EXPECT_THAT(patterns_of(handle), ElementsAre("a/#"));
}

TEST(PatternUnsubscription, MakesValuesUnreadAgain)
{
    const Handle handle;
    follow(handle, "gone/+");
    Writer writer("a");
    writer.write(1);
    int32_t value = 0;
    ASSERT_EQ(kp_sub_topic(handle, "a"), 0);
    ASSERT_EQ(kp_tag_read(kp_get_tag(handle, "a"), &value, sizeof(value)), 4);
    ASSERT_EQ(kp_tag_need_read(kp_get_tag(handle, "a")), 0);

    EXPECT_EQ(kp_unsub_topic(handle, "gone/+"), 0);

    EXPECT_EQ(kp_tag_need_read(kp_get_tag(handle, "a")), 1);
}

TEST(PatternUnsubscription, TakesAlongTheTagThatIsJustBeingMade)
{
    const Peer peer;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    follow(handle, "a/+");
    HeldOpening opening;
    ASSERT_TRUE(sender.send(new_tag_notice("a/b")));
    ASSERT_TRUE(opening.has_begun());

    EXPECT_EQ(kp_unsub_topic(handle, "a/+"), 0);
    opening.release();

    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_THAT(topics_of(handle), IsEmpty());
}

TEST(PatternUnsubscription, OfTheLastPatternLeavesNothingBehind)
{
    const Handle handle;
    const Holdings before = Holdings::now();
    follow(handle, "a/+");
    ASSERT_EQ(kp_sub_plain_topic(handle, "a/b"), 0);

    EXPECT_EQ(kp_unsub_topic(handle, "a/+"), 0);

    EXPECT_EQ(Holdings::now(), before);
    EXPECT_EQ(kp_sub_plain_topic(handle, "a/b"), -1);
}

} // namespace
