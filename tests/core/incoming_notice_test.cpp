// What a handle does with the notices of its peers: the change callback, the automatic
// subscription, and whatever a peer may send instead.
#include "core/mesh.h"

#include <cerrno>
#include <memory>

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Gives the receiver a notice in a block of its exact size, so that AddressSanitizer sees any
// access beside it.
void deliver(kp_t *handle, const std::string &notice)
{
    const auto block = std::make_unique<uint8_t[]>(notice.size());
    std::copy(notice.begin(), notice.end(), block.get());
    kp_notify_callback(block.get(), static_cast<int32_t>(notice.size()), handle);
}

TEST(ChangeNotice, ReachesTheCallbackWithHandleAndUserData)
{
    const Peer peer;
    const CallbackRecorder recorder;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    int data = 0;
    ASSERT_EQ(kp_set_user_data(handle, &data), 0);
    const std::string notice = write_notice({0, 9, 1023});

    ASSERT_TRUE(sender.send(notice));

    ASSERT_TRUE(recorder.wait_for(1));
    EXPECT_EQ(recorder.calls()[0].handle, handle);
    EXPECT_EQ(recorder.calls()[0].notice, notice);
    EXPECT_EQ(recorder.calls()[0].user_data, &data);
}

TEST(ChangeNotice, IsHandedOverUnderTheHandlesMutex)
{
    CallbackRecorder recorder;
    const Handle handle;
    int lock_result = 0;
    recorder.on_call([&lock_result](kp_t *self, const kp_write_info *) {
        lock_result = pthread_mutex_trylock(&self->mutex);
    });

    deliver(handle, write_notice({}));

    EXPECT_EQ(lock_result, EBUSY);
}

TEST(ChangeNotice, LeavesTheMutexFree)
{
    const CallbackRecorder recorder;
    const Handle handle;

    deliver(handle, write_notice({}));

    ASSERT_EQ(pthread_mutex_trylock(&handle->mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->mutex), 0);
}

TEST(ChangeNotice, IsDroppedSilentlyWithoutACallback)
{
    const CallbackRecorder recorder;
    const Handle handle("self", nullptr);
    StderrCapture log;

    deliver(handle, write_notice({1}));

    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(ChangeNotice, OfAWrongLengthIsIgnored)
{
    const CallbackRecorder recorder;
    const Handle handle;
    const std::string notice = write_notice({1}) + repeated('\0', 258);
    StderrCapture log;

    kp_notify_callback(bytes_of(notice), 128, handle);
    kp_notify_callback(bytes_of(notice), 130, handle);
    kp_notify_callback(bytes_of(notice), 387, handle);
    kp_notify_callback(bytes_of(notice), 1, handle);
    kp_notify_callback(bytes_of(notice), -1, handle);

    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(NoticeOfAnotherType, IsIgnored)
{
    const CallbackRecorder recorder;
    const Handle handle;
    follow(handle, "#");
    StderrCapture log;

    deliver(handle, '\0' + write_notice({1}).substr(1));
    deliver(handle, '\3' + write_notice({1}).substr(1));
    deliver(handle, '\3' + new_tag_notice("a").substr(1));
    deliver(handle, '\377' + new_tag_notice("a").substr(1));

    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(NullNotice, IsReportedBeforeANullHandle)
{
    StderrCapture log;

    kp_notify_callback(nullptr, 129, nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_notify_callback: notification is null\n\033[0m");
}

TEST(NoticeForANullHandle, IsReported)
{
    StderrCapture log;

    kp_notify_callback(bytes_of(write_notice({})), 129, nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_notify_callback: obj is null\n\033[0m");
}

TEST(NewTagNotice, SubscribesToATopicThatAPatternCovers)
{
    const Peer peer;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    follow(handle, "a/+");

    ASSERT_TRUE(sender.send(new_tag_notice("a/b")));

    ASSERT_TRUE(wait_until([] { return SegmentFile("a/b").exists(); }));
    ASSERT_TRUE(wait_until([&handle] { return kp_get_tag(handle, "a/b") != nullptr; }));
    EXPECT_EQ(SegmentFile("a/b").u8(at::consumer_refs), 1);
}

TEST(NewTagNotice, IsFollowedByAHandleWithoutACallback)
{
    const Peer peer;
    const Handle handle("self", nullptr);
    const UnixSocket sender = peer.accept();
    follow(handle, "#");

    ASSERT_TRUE(sender.send(write_notice({1}) + new_tag_notice("a/b")));

    EXPECT_TRUE(wait_until([&handle] { return kp_get_tag(handle, "a/b") != nullptr; }));
}

TEST(NewTagNotice, IsIgnoredWhenOnlyAPlainSubscriptionNamesTheTopic)
{
    const Handle handle;
    ASSERT_EQ(kp_sub_topic(handle, "a/b"), 0);
    ASSERT_EQ(kp_tags_destroy(handle), 0);
    StderrCapture log;

    deliver(handle, new_tag_notice("a/b"));

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(NewTagNotice, IsIgnoredWhenNoPatternCoversTheTopic)
{
    const Handle handle;
    follow(handle, "a/+");

    deliver(handle, new_tag_notice("b/b"));
    deliver(handle, new_tag_notice("a/b/c"));

    EXPECT_THAT(topics_of(handle), IsEmpty());
}

TEST(NewTagNotice, MakesNoSecondTagForAKnownTopic)
{
    const Handle handle;
    follow(handle, "a/+");

    deliver(handle, new_tag_notice("a/b"));
    deliver(handle, new_tag_notice("a/b"));

    EXPECT_THAT(topics_of(handle), ElementsAre("a/b"));
    EXPECT_EQ(SegmentFile("a/b").u8(at::consumer_refs), 1);
}

TEST(NewTagNotice, OfAWrongLengthIsIgnored)
{
    const Handle handle;
    follow(handle, "#");
    const std::string notice = new_tag_notice("a/b") + '\0';

    kp_notify_callback(bytes_of(notice), 386, handle);
    kp_notify_callback(bytes_of(notice), 388, handle);
    kp_notify_callback(bytes_of(notice), 129, handle);

    EXPECT_THAT(topics_of(handle), IsEmpty());
}

TEST(NewTagNotice, IsHandledWithTheMutexFree)
{
    const Handle handle;
    follow(handle, "#");
    int lock_result = -1;
    const Before tag_allocation(Call::calloc, [&] {
        lock_result = pthread_mutex_trylock(&handle->mutex);
        (void)pthread_mutex_unlock(&handle->mutex);
    });

    deliver(handle, new_tag_notice("a/b"));

    EXPECT_EQ(lock_result, 0);
}

TEST(WildNewTagNotice, WithoutATerminatorIsReadToItsEnd)
{
    const Handle handle;
    follow(handle, "#");
    const std::string topic = repeated('a', 200) + '/' + repeated('b', 185);

    deliver(handle, new_tag_notice(topic));

    EXPECT_THAT(topics_of(handle), ElementsAre(topic));
}

TEST(WildNewTagNotice, ThatClimbsOutOfTheStoreIsRefused)
{
    const Handle handle;
    follow(handle, "#");
    StderrCapture log;

    deliver(handle, new_tag_notice("../escaped"));
    deliver(handle, new_tag_notice("a/../../escaped"));
    deliver(handle, new_tag_notice("a/.."));

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_FALSE(exists("/dev/shm/escaped"));
    EXPECT_FALSE(exists("/dev/shm/zu-kp"));
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: topic is invalid\n\033[0mkp_tag_consumer_new fail\n"
              "\033[91mERROR: kp_shm_new: topic is invalid\n\033[0mkp_tag_consumer_new fail\n"
              "\033[91mERROR: kp_shm_new: topic is invalid\n\033[0mkp_tag_consumer_new fail\n");
}

TEST(WildNewTagNotice, WithControlBytesStaysInTheStore)
{
    const Handle handle;
    follow(handle, "#");
    const std::string topic = "\x1b[2J\n\x7f/\xff%s%n";

    deliver(handle, new_tag_notice(topic));

    EXPECT_THAT(topics_of(handle), ElementsAre(topic));
    EXPECT_TRUE(SegmentFile(topic).exists());
}

TEST(WildNewTagNotice, WithAnEmptyTopicIsIgnored)
{
    const Handle handle;
    follow(handle, "#");
    StderrCapture log;

    deliver(handle, new_tag_notice(""));
    deliver(handle, new_tag_notice("///"));

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(WildNewTagNotice, WithANameThatNoFileCanHaveMakesNoTag)
{
    const Handle handle;
    follow(handle, "#");
    StderrCapture log;

    deliver(handle, new_tag_notice(repeated('a', 386)));

    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): File name too long",
                     "kp_tag_consumer_new fail"}));
}

} // namespace
