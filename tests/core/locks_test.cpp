// Which calls wait for a lock of a handle that another thread holds, and the order in which threads
// see what a handle is given. ThreadSanitizer judges the latter.
#include "core/mesh.h"

#include "core/topic.h"
#include "layout/field.h"
#include "testing/locks.h"

#include <array>
#include <sys/eventfd.h>
#include <thread>

using namespace kptest;

namespace {

// In which a thread comes to a lock, if nothing holds it up.
constexpr std::chrono::milliseconds kMoment{50};

TEST(LockOfAHandle, IsTakenToEnterATag)
{
    const Handle handle;

    EXPECT_TRUE(waits_for(handle->mutex, [&] { (void)kp_tag_consumer_new(handle, "a"); }));
    EXPECT_TRUE(waits_for(handle->mutex, [&] { EXPECT_EQ(kp::sub_plain_topic(handle, "a"), 0); }));
    EXPECT_TRUE(waits_for(handle->mutex, [&] { (void)kp_tags_destroy(handle); }));
}

TEST(LockOfTheSubscriptions, IsTakenToLookForAPattern)
{
    const Handle handle;
    pthread_mutex_t &mutex = handle->sub_patterns->mutex;

    EXPECT_TRUE(waits_for(mutex, [&] { EXPECT_EQ(kp_sub_plain_topic(handle, "a"), -1); }));
    EXPECT_TRUE(waits_for(mutex, [&] { EXPECT_EQ(kp_unsub_topic(handle, "a/+"), 0); }));
}

TEST(LockOfAnAnnouncement, IsTakenToDropAPattern)
{
    const Handle handle;
    follow(handle, "a/+");

    EXPECT_TRUE(waits_for(handle->follow_mutex, [&] { (void)kp_unsub_topic(handle, "a/+"); }));
}

// What a callback of the application may look at, written before it is handed over.
struct Handed {
    int number = 0;
};

TEST(UserData, IsSeenWholeByTheCallback)
{
    std::array<Handed, 200> all{};
    static std::atomic<int> sum;
    sum = 0;
    const Peer peer;
    kp_t *handle = kp_new("self", [](kp_t *, const kp_write_info *, void *user_data) {
        if (user_data)
            sum += static_cast<Handed *>(user_data)->number;
        return 0;
    });
    ASSERT_NE(handle, nullptr);
    const UnixSocket sender = peer.accept();

    for (Handed &handed : all) {
        handed.number = 1;
        EXPECT_EQ(kp_set_user_data(handle, &handed), 0);
        EXPECT_TRUE(wait_until([&] { return sender.send(write_notice({1})); }));
    }

    EXPECT_TRUE(wait_until([] { return sum > 0; }));
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(UserData, IsSeenWholeByAnotherThread)
{
    std::array<Handed, 1000> all{};
    const Handle handle;
    std::atomic<bool> is_over = false;
    int seen = 0;
    std::thread reader([&] {
        while (!is_over)
            if (const void *data = kp_get_user_data(handle))
                seen += static_cast<const Handed *>(data)->number;
    });

    for (Handed &handed : all) {
        handed.number = 1;
        EXPECT_EQ(kp_set_user_data(handle, &handed), 0);
    }
    EXPECT_TRUE(wait_until([&] { return kp_get_user_data(handle) == &all.back(); }));
    is_over = true;
    reader.join();

    EXPECT_GE(seen, 0);
}

// A callback that uses its handle while kp_new() has not returned yet.
TEST(UnfinishedHandle, IsWholeOnceItsCallbackRuns)
{
    static std::atomic<int> forwarded;
    forwarded = 0;
    const Peer peer;
    UnixSocket sender;
    const Before receive_thread(
        Call::pthread_create,
        [&] {
            sender = peer.accept();
            for (unsigned bucket = 0; bucket < 100; ++bucket)
                EXPECT_TRUE(sender.send(write_notice({bucket})));
        },
        3);

    kp_t *handle = kp_new("self", [](kp_t *self, const kp_write_info *, void *) {
        forwarded += kp_tag_notify(self) == 0;
        return 0;
    });
    EXPECT_TRUE(sender.send(write_notice({500})));

    EXPECT_TRUE(wait_until([] { return forwarded > 0; }));
    EXPECT_EQ(kp_destroy(handle), 0);
}

// The receive thread has asked for a descriptor, found none, and waits for the lock of the callback
// when another thread makes one.
TEST(NoticeThatWaitsForTheLock, IsMergedWhenADescriptorHasComeMeanwhile)
{
    const CallbackRecorder recorder;
    const Handle handle;
    const std::string notice = write_notice({5});
    ASSERT_EQ(pthread_mutex_lock(&handle->mutex), 0);
    std::thread receiver([&] { kp_notify_callback(bytes_of(notice), 129, handle); });
    EXPECT_FALSE(wait_until([&] { return !recorder.calls().empty(); }, kMoment));
    kp::store_release(handle->notice_fd, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_EQ(pthread_mutex_unlock(&handle->mutex), 0);
    receiver.join();
    std::string taken(129, 'x');

    EXPECT_EQ(kp_take_notice(handle, reinterpret_cast<kp_write_info *>(taken.data())), 1);

    EXPECT_EQ(taken, notice);
    EXPECT_TRUE(recorder.calls().empty());
}

} // namespace
