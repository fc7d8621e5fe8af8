// A handle that a child of fork() has taken along, and threads that are cancelled in its calls.
#include "core/mesh.h"
#include "store/segment_file.h"
#include "testing/child.h"

#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;

namespace {

TEST(ForkedHandle, ReadsAndWritesValuesAndIsDestroyedInTheChild)
{
    kp_t *handle = kp_new("parent", nullptr);
    kp_tag_t *tag = kp_tag_provider_new(handle, "a/b", KP_TYPE_INT32, 4, 0);
    int32_t value = 1;
    ASSERT_EQ(kp_tag_write(handle, tag, &value, 4), 4);

    const int status = status_of_child([&] {
        int32_t read = 0;
        const int32_t written = 2;
        return kp_tag_read(tag, &read, 4) == 4 && read == 1 &&
               kp_tag_write(handle, tag, &written, 4) == 4 && kp_tag_notify(handle) == 0 &&
               kp_tags_destroy(handle) == 0 && kp_destroy(handle) == 0;
    });

    EXPECT_EQ(status, 0);
    EXPECT_EQ(kp_tag_read(tag, &value, 4), 4);
    EXPECT_EQ(value, 2);
    uint32_t providers = 0;
    EXPECT_EQ(kp_tag_get_reference_count("a/b", &providers, nullptr), 0);
    EXPECT_EQ(providers, 1U) << "the parent's count stays";
    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(ForkedHandle, IsDestroyedInAChildThatWasForkedWhileItsLocksWereHeld)
{
    kp_t *handle = kp_new("parent", nullptr);
    (void)kp_tag_consumer_new(handle, "a");
    follow(handle, "b/+");
    ASSERT_EQ(pthread_mutex_lock(&handle->mutex), 0);
    ASSERT_EQ(pthread_mutex_lock(&handle->follow_mutex), 0);
    ASSERT_EQ(pthread_mutex_lock(&handle->sub_topics->mutex), 0);
    ASSERT_EQ(pthread_mutex_lock(&handle->sub_patterns->mutex), 0);

    const int status = status_of_child([&] {
        (void)alarm(10);
        return kp_unsub_topic(handle, "b/+") == 0 && kp_close(handle) == 0;
    });

    EXPECT_EQ(status, 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->follow_mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->sub_topics->mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->sub_patterns->mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->mutex), 0);
    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(ForkedHandle, LeavesTheNumberOfItsNoticeDescriptorToItsNextOwner)
{
    kp_t *handle = kp_new("parent", nullptr);
    const int number = kp_get_fd(handle);
    ASSERT_GE(number, 0);

    const int status = status_of_child([&] {
        return dup2(STDIN_FILENO, number) == number && kp_destroy(handle) == 0 &&
               close(number) == 0;
    });

    EXPECT_EQ(status, 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(ForkedHandle, CountsATagThatTheChildOpensItself)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a child that is forked among threads cannot start any";
#endif
    kp_t *handle = kp_new("parent", nullptr);

    const int status = status_of_child([] {
        kp_t *own = kp_new("child", nullptr);
        kp_tag_t *tag = own ? kp_tag_consumer_new(own, "mine") : nullptr;
        return tag && kp_tags_destroy(own) == 0 && kp_destroy(own) == 0;
    });

    EXPECT_EQ(status, 0);
    EXPECT_NE(access("/dev/shm/zu-kp/mine", F_OK), 0) << "the last handle removes the file";
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(CancelledThread, LeavesTheHandlesLockFree)
{
    kp_t *handle = kp_new("cancelled", nullptr);
    kp_tag_t *tag = kp_tag_consumer_new(handle, "a");
    auto *segment = static_cast<sem_t *>(static_cast<void *>(tag->shm->mem));
    (void)sem_wait(segment); // a killed process leaves it like this
    std::atomic<bool> destroying = false;
    std::thread destroyer([&] {
        destroying = true;
        (void)kp_tag_destroy(handle, tag);
        (void)sleep(60); // a cancellation point
    });
    ASSERT_TRUE(wait_until([&] {
        const bool is_held = pthread_mutex_trylock(&handle->mutex) != 0;
        if (!is_held)
            (void)pthread_mutex_unlock(&handle->mutex);
        return is_held;
    }));

    EXPECT_EQ(pthread_cancel(destroyer.native_handle()), 0);
    destroyer.join();

    EXPECT_EQ(pthread_mutex_trylock(&handle->mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&handle->mutex), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

} // namespace
