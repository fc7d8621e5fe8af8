// Destroying handles, and the pointer that a handle keeps for the application.
#include "core/mesh.h"
#include "notify/endpoint.h"
#include "testing/faults.h"

#include <atomic>

using namespace kptest;

namespace {

// What is left of a tag whose handle is gone.
void free_orphan(kp_tag_t *tag)
{
    EXPECT_EQ(kp_shm_destroy(tag->shm, tag->topic, tag->role), 0);
    std::free(tag->topic);
    std::free(tag);
}

TEST(DestroyedHandle, GivesEverythingBack)
{
    const Holdings before = Holdings::now();
    kp_t *handle = kp_new("self", nullptr);
    (void)kp_sub_topic(handle, "a/b");
    (void)kp_sub_topic(handle, "c/+");
    ASSERT_EQ(kp_tags_destroy(handle), 0);

    EXPECT_EQ(kp_destroy(handle), 0);

    EXPECT_EQ(Holdings::now(), before);
    EXPECT_FALSE(exists("/run/providers/self"));
}

TEST(DestroyedHandle, LeavesItsTagsOpen)
{
    Handle handle;
    kp_tag_t *tag = kp_tag_provider_new(handle, "a/b", KP_TYPE_INT32, 0, 0);
    const int32_t value = 42;
    ASSERT_EQ(kp_tag_write(handle, tag, &value, sizeof(value)), 4);

    EXPECT_EQ(handle.destroy(), 0);

    int32_t read = 0;
    EXPECT_EQ(kp_tag_read(tag, &read, sizeof(read)), 4);
    EXPECT_EQ(read, 42);
    EXPECT_EQ(SegmentFile("a/b").u8(at::provider_refs), 1);
    free_orphan(tag);
}

TEST(DestroyedHandle, WasNotNull)
{
    StderrCapture log;

    EXPECT_EQ(kp_destroy(nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_destroy: kp is null\n\033[0m");
}

TEST(DestroyedHandle, LetsARunningCallbackFinishItsWalk)
{
    const Peer peer;
    CallbackRecorder recorder;
    Handle handle;
    const UnixSocket sender = peer.accept();
    Writer writer("a/b");
    ASSERT_NE(kp_tag_consumer_new(handle, "a/b"), nullptr);
    writer.write(7);
    const uint8_t &stop = handle->notify->stop;
    std::atomic<bool> inside = false;
    std::string found;
    recorder.on_call([&](kp_t *self, const kp_write_info *notice) {
        inside = true;
        (void)wait_until([&stop] { return kp::load_acquire(stop) != 0; });
        kp_tag_iter_t iter{0, nullptr};
        found = kp_tag_get_topic(kp_get_next_updated_tag(self, notice, &iter));
    });
    ASSERT_TRUE(sender.send(write_notice({kp_hash("a/b")})));
    ASSERT_TRUE(wait_until([&inside] { return inside.load(); }));
    kp_tag_t *tag = kp_get_tag(handle, "a/b");

    EXPECT_EQ(handle.destroy(), 0);

    EXPECT_EQ(found, "a/b");
    free_orphan(tag);
}

TEST(ClosedHandle, GivesEverythingBackWithItsTags)
{
    const Writer writer("c/d");
    const Holdings before = Holdings::now();
    kp_t *handle = kp_new("self", nullptr);
    (void)kp_sub_topic(handle, "a/b");
    (void)kp_sub_topic(handle, "c/+");
    ASSERT_NE(kp_tag_provider_new(handle, "e", KP_TYPE_INT32, 0, 0), nullptr);
    ASSERT_NE(kp_get_tag(handle, "c/d"), nullptr);

    EXPECT_EQ(kp_close(handle), 0);

    EXPECT_EQ(SegmentFile("c/d").u8(at::consumer_refs), 0);
    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_FALSE(SegmentFile("e").exists());
    EXPECT_FALSE(exists("/run/providers/self"));
    EXPECT_EQ(Holdings::now(), before);
}

TEST(ClosedHandle, TakesAlongTheTagThatIsJustBeingMade)
{
    const Peer peer;
    kp_t *handle = kp_new("self", nullptr);
    const UnixSocket sender = peer.accept();
    follow(handle, "#");
    HeldOpening opening;
    ASSERT_TRUE(sender.send(new_tag_notice("a")));
    ASSERT_TRUE(opening.has_begun());

    EXPECT_EQ(kp_close(handle), 0);
    opening.release();

    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(ClosedHandle, WasNotNull)
{
    StderrCapture log;

    EXPECT_EQ(kp_close(nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_close: kp is null\n\033[0m");
}

TEST(UserData, IsWhatWasStoredLast)
{
    const Handle handle;
    int first = 0;
    int second = 0;

    EXPECT_EQ(kp_get_user_data(handle), nullptr);
    EXPECT_EQ(kp_set_user_data(handle, &first), 0);
    EXPECT_EQ(kp_set_user_data(handle, &second), 0);
    EXPECT_EQ(kp_get_user_data(handle), &second);
}

TEST(UserData, NeedsAHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_set_user_data(nullptr, &log), -1);
    EXPECT_EQ(kp_get_user_data(nullptr), nullptr);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_set_user_data: kp is null",
                                  "ERROR: kp_get_user_data: kp is null"}));
}

} // namespace
