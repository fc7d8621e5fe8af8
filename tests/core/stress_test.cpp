// A handle at work on two threads at once. ThreadSanitizer and AddressSanitizer judge most of it.
#include "core/mesh.h"

#include <atomic>
#include <csignal>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <thread>

using namespace kptest;
using testing::ElementsAre;

namespace {

// Sends what `message` makes of a running number, one after the other, until stopped.
class Flood {
  public:
    Flood(const UnixSocket &socket, std::function<std::string(unsigned)> message)
        : thread_([this, &socket, message = std::move(message)] {
              for (unsigned number = 0; !stop_; ++number)
                  while (!socket.send(message(number)) && !stop_)
                      std::this_thread::sleep_for(std::chrono::microseconds(100));
          })
    {
    }
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;
    ~Flood()
    {
        stop_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

std::string some_new_tag(unsigned number)
{
    return new_tag_notice("s/" + std::to_string(number % 7));
}

std::string some_notice(unsigned number)
{
    return number % 2 ? write_notice({number % 1024}) : some_new_tag(number);
}

void rebuild(kp_t *handle, int rounds)
{
    for (int round = 0; round < rounds; ++round) {
        follow(handle, "t/+");
        (void)kp_unsub_topic(handle, "t/+");
    }
}

TEST(BusyHandle, RebuildsItsSubscriptionsWhileNewTagsAreAnnounced)
{
    const Peer peer;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    follow(handle, "s/+");
    ASSERT_EQ(kp_sub_topic(handle, "plain"), 0);

    {
        const Flood flood(sender, some_new_tag);
        ASSERT_TRUE(wait_until([] { return SegmentFile("s/6").exists(); }));
        rebuild(handle, 200);
    }
    ASSERT_TRUE(wait_until([&sender] { return sender.send(new_tag_notice("s/last")); }));

    ASSERT_TRUE(wait_until([] { return SegmentFile("s/last").exists(); }));
    EXPECT_THAT(patterns_of(handle), ElementsAre("s/+"));
    EXPECT_THAT(plain_subscriptions_of(handle), ElementsAre("plain"));
    EXPECT_NE(kp_get_tag(handle, "plain"), nullptr);
}

void make_and_destroy_tags(kp_t *handle, int rounds)
{
    for (int round = 0; round < rounds; ++round) {
        kp_tag_t *tag = kp_tag_provider_new(handle, "Aa", KP_TYPE_INT32, 0, 0);
        EXPECT_EQ(kp_tag_write(handle, tag, &round, sizeof(round)), 4);
        EXPECT_NE(kp_tag_consumer_new(handle, "BB"), nullptr);
        EXPECT_EQ(kp_tag_destroy(handle, tag), 0);
        EXPECT_EQ(kp_tag_destroy(handle, kp_get_tag(handle, "BB")), 0);
    }
}

TEST(BusyHandle, WalksItsTagsInTheCallbackWhileTagsComeAndGo)
{
    const Peer peer;
    CallbackRecorder recorder;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    Writer writer("Aa");
    ASSERT_NE(kp_tag_consumer_new(handle, "Aa"), nullptr);
    std::atomic<int> seen = 0;
    recorder.on_call([&seen](kp_t *self, const kp_write_info *notice) {
        kp_tag_iter_t iter{0, nullptr};
        while (iter.bucket < KP_BUCKET_COUNT)
            if (kp_tag_t *tag = kp_get_next_updated_tag(self, notice, &iter))
                seen += kp_tag_read_with_timestamp(tag, nullptr, 4, nullptr) == 4;
    });
    writer.write(1);
    kp_xlog_set_user_level(KP_LEVEL_OFF); // a reader may find the topic just declared again

    {
        const Flood flood(sender, [](unsigned) { return write_notice({64}); });
        make_and_destroy_tags(handle, 300);
        EXPECT_TRUE(wait_until([&seen] { return seen > 0; }));
    }
    kp_xlog_set_user_level(KP_LEVEL_WARN);

    EXPECT_THAT(topics_of(handle), ElementsAre("Aa"));
}

void destroy_under_a_flood()
{
    const Peer peer;
    CallbackRecorder recorder;
    Handle handle;
    const UnixSocket sender = peer.accept();
    follow(handle, "s/+");
    const Flood flood(sender, some_notice);
    EXPECT_TRUE(recorder.wait_for(3));

    // Until the next notice is on its way, the topic announced last can still become a tag.
    EXPECT_EQ(kp_unsub_topic(handle, "s/+"), 0);
    EXPECT_TRUE(recorder.wait_for(recorder.calls().size() + 1));
    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(handle.destroy(), 0);
}

TEST(BusyHandle, IsDestroyedWhileNoticesArrive)
{
    const Holdings before = Holdings::now();

    destroy_under_a_flood();
    destroy_under_a_flood();
    destroy_under_a_flood();
    destroy_under_a_flood();
    destroy_under_a_flood();

    EXPECT_EQ(Holdings::now(), before);
}

// Counts the bytes that the other side has not taken yet.
int unread_bytes(int fd)
{
    int count = -1;
    (void)ioctl(fd, SIOCOUTQ, &count);
    return count;
}

// The socket whose notices a signal handler waits for, and whether it saw them taken.
volatile std::sig_atomic_t early_sender = -1;
volatile std::sig_atomic_t early_notices_taken = 0;

void wait_until_taken(int)
{
    const timespec pause{0, 1'000'000};
    for (int ms = 0; ms < 10'000 && unread_bytes(early_sender) != 0; ++ms)
        (void)nanosleep(&pause, nullptr);
    early_notices_taken = unread_bytes(early_sender) == 0;
}

// The third thread that kp_new() starts is the one that receives. A signal sent right before stays
// pending until it runs, and holds kp_new() up until the thread has taken what arrived.
TEST(UnfinishedHandle, SurvivesNoticesThatArriveBeforeItIsMade)
{
    const Peer peer;
    const CallbackRecorder recorder;
    UnixSocket sender;
    (void)std::signal(SIGUSR1, wait_until_taken);
    const Before receive_thread(
        Call::pthread_create,
        [&] {
            sender = peer.accept();
            EXPECT_TRUE(sender.send(write_notice({1}) + new_tag_notice("a/b") + write_notice({2})));
            early_sender = sender.fd();
            EXPECT_EQ(pthread_kill(pthread_self(), SIGUSR1), 0);
        },
        3);

    const Handle handle;

    EXPECT_TRUE(wait_until([] { return early_notices_taken != 0; }));
    follow(handle, "a/+");
    ASSERT_TRUE(sender.send(new_tag_notice("a/c")));
    EXPECT_TRUE(wait_until([&handle] { return kp_get_tag(handle, "a/c") != nullptr; }));
    EXPECT_EQ(kp_get_tag(handle, "a/b"), nullptr);
}

} // namespace
