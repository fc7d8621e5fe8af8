// Announcing, describing and destroying tags.
#include "core/mesh.h"
#include "notify/endpoint.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

kp_tag_t *new_int32(kp_t *handle, const std::string &topic)
{
    return kp_tag_provider_new(handle, topic.c_str(), KP_TYPE_INT32, 0, 0);
}

TEST(Announcement, Is387BytesWithTypeAndTopic)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);

    ASSERT_NE(new_int32(handle, "a/b"), nullptr);

    EXPECT_EQ(reader.recv(387), "\2a/b" + repeated('\0', 383));
    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST(Announcement, IsNotSentUnlessEnabled)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);

    ASSERT_NE(new_int32(handle, "a/b"), nullptr);

    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST(Announcement, IsNotSentForAConsumer)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);

    ASSERT_NE(kp_tag_consumer_new(handle, "a/b"), nullptr);

    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST(Announcement, IsNotSentForAProviderThatFailed)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    StderrCapture log;
    const FailNth dictionary_entry(Call::calloc, 3);

    ASSERT_EQ(new_int32(handle, "a/b"), nullptr);

    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST(Announcement, IsSentAgainForASecondTagOfTheTopic)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);

    ASSERT_NE(new_int32(handle, "a/b"), nullptr);
    ASSERT_NE(new_int32(handle, "a/b"), nullptr);

    EXPECT_EQ(reader.recv(2 * 387).size(), 2U * 387);
}

TEST(Announcement, CutsATopicAfter385CharactersOfWhichTheTagKeepsAll)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    const std::string topic = repeated('a', 200) + '/' + repeated('b', 199);

    kp_tag_t *tag = new_int32(handle, topic);

    ASSERT_NE(tag, nullptr);
    EXPECT_EQ(reader.recv(387), '\2' + topic.substr(0, 385) + '\0');
    EXPECT_EQ(kp_tag_get_topic(tag), topic);
    EXPECT_TRUE(SegmentFile(topic).exists());
}

TEST(Announcement, KeepsATopicOf385CharactersWhole)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    const std::string topic = repeated('a', 200) + '/' + repeated('b', 184);

    ASSERT_NE(new_int32(handle, topic), nullptr);

    EXPECT_EQ(reader.recv(387), '\2' + topic + '\0');
}

TEST(Announcement, OfAShorterTopicIsTerminatedBehindALongerOne)
{
    const Handle handle;
    const UnixSocket reader = listen_to(handle);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    ASSERT_NE(new_int32(handle, "long/topic"), nullptr);
    ASSERT_EQ(reader.recv(387).size(), 387U);

    ASSERT_NE(new_int32(handle, "b"), nullptr);

    EXPECT_STREQ(reader.recv(387).c_str(), "\2b");
}

TEST(Announcement, IsFollowedByTheHandleOfAPeer)
{
    const Handle provider("provider");
    const Handle consumer("consumer");
    follow(consumer, "a/#");
    ASSERT_EQ(kp_set_new_tag_notify(provider, 1), 0);
    ASSERT_TRUE(wait_until([&] { // the consumer's connection is in the provider's table
        return kp::load_ordered(provider->notify->client_fds[kp::kFirstPeerSlot]) != -1;
    }));

    ASSERT_NE(new_int32(provider, "a/b"), nullptr);

    EXPECT_TRUE(wait_until([&consumer] { return kp_get_tag(consumer, "a/b") != nullptr; }));
    EXPECT_EQ(kp_get_tag(consumer, "a/b")->role, 2U);
}

TEST(DestroyedTag, LeavesDictionaryAndStore)
{
    const Handle handle;
    const Holdings before = Holdings::now();
    kp_tag_t *tag = new_int32(handle, "a/b");

    EXPECT_EQ(kp_tag_destroy(handle, tag), 0);

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_EQ(Holdings::now(), before);
}

TEST(DestroyedTag, LeavesTheFileToTheOtherTagsOfItsTopic)
{
    const Handle handle;
    kp_tag_t *provider = new_int32(handle, "a");
    kp_tag_t *consumer = kp_tag_consumer_new(handle, "a");
    ASSERT_NE(kp_tag_consumer_new(handle, "a"), nullptr);

    EXPECT_EQ(kp_tag_destroy(handle, consumer), 0);
    EXPECT_EQ(kp_tag_destroy(handle, provider), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 0);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
    EXPECT_THAT(topics_of(handle), ElementsAre("a"));
}

TEST(DestroyedTag, NeedsAHandleAndThenATag)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_destroy(nullptr, nullptr), -1);
    EXPECT_EQ(kp_tag_destroy(handle, nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_destroy: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_destroy: tag is null\n\033[0m");
}

TEST(DestroyedTags, AreAllThoseOfTheHandle)
{
    const Handle handle;
    const Holdings before = Holdings::now();
    ASSERT_NE(new_int32(handle, "Aa"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(handle, "BB"), nullptr); // in the bucket of "Aa"
    ASSERT_NE(kp_tag_consumer_new(handle, "Aa"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(handle, "aA"), nullptr); // in the first bucket
    ASSERT_NE(kp_tag_consumer_new(handle, "a@"), nullptr); // in the last bucket

    EXPECT_EQ(kp_tags_destroy(handle), 0);

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(kp_list_all_topics(), nullptr);
    EXPECT_EQ(Holdings::now(), before);
}

TEST(DestroyedTags, DoNotIncludeThoseOfAnotherHandle)
{
    const Handle first("first");
    const Handle second("second");
    ASSERT_NE(kp_tag_consumer_new(first, "a"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(second, "a"), nullptr);

    EXPECT_EQ(kp_tags_destroy(first), 0);

    EXPECT_THAT(topics_of(second), ElementsAre("a"));
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
}

TEST(DestroyedTags, MayBeNone)
{
    const Handle handle;

    EXPECT_EQ(kp_tags_destroy(handle), 0);
}

TEST(DestroyedTags, NeedAHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_tags_destroy(nullptr), -1);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tags_destroy: kp is null"});
}

int ignore_read(kp_tag_t *, void *)
{
    return 0;
}

TEST(ReadCallback, IsRefusedAtLevelFatalEvenWithValidArguments)
{
    const Handle handle;
    kp_tag_t *tag = kp_tag_consumer_new(handle, "a");
    StderrCapture log;

    EXPECT_EQ(kp_tag_set_read_callback(tag, ignore_read), -1);
    EXPECT_EQ(kp_tag_set_read_callback(nullptr, nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mFATAL: kp_tag_set_read_callback: read callback is not support on linux "
              "version of kp\n\033[0m"
              "\033[91mFATAL: kp_tag_set_read_callback: read callback is not support on linux "
              "version of kp\n\033[0m");
}

TEST(ReadCallback, IsRefusedAloudAtLevelFatalAndSilentlyAtLevelOff)
{
    StderrCapture log;

    kp_xlog_set_user_level(KP_LEVEL_FATAL);
    EXPECT_EQ(kp_tag_set_read_callback(nullptr, nullptr), -1);
    EXPECT_EQ(log.lines().size(), 1U);
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    EXPECT_EQ(kp_tag_set_read_callback(nullptr, nullptr), -1);
    EXPECT_EQ(log.lines().size(), 1U);
    kp_xlog_set_user_level(KP_LEVEL_WARN);
}

TEST(TagsUserData, IsWhatWasStoredLast)
{
    const Handle handle;
    kp_tag_t *tag = kp_tag_consumer_new(handle, "a");
    int data = 0;

    EXPECT_EQ(kp_tag_get_user_data(tag), nullptr);
    EXPECT_EQ(kp_tag_set_user_data(tag, &data), 0);
    EXPECT_EQ(kp_tag_get_user_data(tag), &data);
}

TEST(TagsUserData, IsRefusedSilentlyForANullTag)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_set_user_data(nullptr, &log), -1);

    EXPECT_EQ(log.text(), "");
}

TEST(TagsUserData, OfANullTagIsReported)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_get_user_data(nullptr), nullptr);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_get_user_data: tag is null"});
}

TEST(TagsTopic, IsTheTagsOwnString)
{
    const Handle handle;
    kp_tag_t *tag = kp_tag_consumer_new(handle, "a/b");

    EXPECT_EQ(kp_tag_get_topic(tag), tag->topic);
    EXPECT_STREQ(kp_tag_get_topic(tag), "a/b");
}

TEST(TagsTopic, OfANullTagIsReported)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_get_topic(nullptr), nullptr);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_get_topic: tag is null"});
}

} // namespace
