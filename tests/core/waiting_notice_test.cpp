// Notices that wait for the application's own thread, and the descriptor that says so.
#include "core/mesh.h"

#include "testing/readable.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <thread>

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string everything()
{
    return '\1' + std::string(128, '\xff');
}

// Gives a handle a notice as its receive thread does.
void bring(kp_t *handle, const std::string &notice)
{
    kp_notify_callback(bytes_of(notice), 129, handle);
}

// What is taken: a notice's bytes, or none when the function says that there was nothing.
std::optional<std::string> take(kp_t *handle)
{
    std::string notice(129, 'x');
    const int32_t result = kp_take_notice(handle, reinterpret_cast<kp_write_info *>(notice.data()));
    if (result == 1)
        return notice;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(notice, write_notice({}));
    return std::nullopt;
}

// A handle that takes its notices itself, with nothing waiting.
class Follower : public Handle {
  public:
    explicit Follower(const char *name = "self") : Handle(name), fd_(kp_get_fd(*this))
    {
        EXPECT_EQ(take(*this), everything());
    }
    int fd() const
    {
        return fd_;
    }

  private:
    int fd_;
};

// Gives the topics that a walk of a notice finds, and reads each.
std::vector<std::string> read_topics(kp_t *handle, const std::string &notice)
{
    std::vector<std::string> topics;
    kp_tag_iter_t iter{0, nullptr};
    while (iter.bucket < KP_BUCKET_COUNT)
        if (kp_tag_t *tag = kp_get_next_updated_tag(handle, as_write_info(notice), &iter)) {
            topics.emplace_back(kp_tag_get_topic(tag));
            (void)kp_tag_read_with_timestamp(tag, nullptr, KP_MAX_VALUE_SIZE, nullptr);
        }
    return topics;
}

TEST(NoticeDescriptor, IsReadableAtOnceWithTheBitsOfAllBuckets)
{
    const Handle handle;

    const int fd = kp_get_fd(handle);

    EXPECT_TRUE(is_readable(fd));
    EXPECT_EQ(take(handle), everything());
    EXPECT_FALSE(is_readable(fd));
    EXPECT_EQ(take(handle), std::nullopt);
}

TEST(NoticeDescriptor, IsTheSameInEveryCall)
{
    const Handle handle;
    std::array<int, 2> fds{};

    std::thread other([&] { fds[0] = kp_get_fd(handle); });
    fds[1] = kp_get_fd(handle);
    other.join();

    EXPECT_GE(fds[0], 3);
    EXPECT_EQ(fds[0], fds[1]);
    EXPECT_EQ(kp_get_fd(handle), fds[0]);
    EXPECT_EQ(take(handle), everything());
    EXPECT_EQ(take(handle), std::nullopt);
}

TEST(NoticeDescriptor, DoesNotBlockAndIsClosedOnExec)
{
    const Handle handle;

    const int fd = kp_get_fd(handle);

    EXPECT_EQ(open_descriptors().at(fd), "anon_inode:[eventfd]");
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(NoticeDescriptor, IsClosedWithItsHandle)
{
    const Holdings before = Holdings::now();
    {
        const Handle handle;
        ASSERT_GE(kp_get_fd(handle), 0);
    }
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NoticeDescriptor, OfANullHandleIsRefused)
{
    StderrCapture log;

    EXPECT_EQ(kp_get_fd(nullptr), -1);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_get_fd: kp is null"});
}

TEST(NoticeDescriptor, ThatCannotBeMadeLeavesTheCallbackInPlace)
{
    const CallbackRecorder recorder;
    const Handle handle;
    StderrCapture log;
    const FailNext none_left{Call::eventfd};

    EXPECT_EQ(kp_get_fd(handle), -1);

    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_get_fd: eventfd: Too many open files"});
    bring(handle, write_notice({5}));
    EXPECT_EQ(recorder.calls().size(), 1U);
    EXPECT_TRUE(is_readable(kp_get_fd(handle)));
}

TEST(NoticeDescriptor, EndsTheCallsOfTheCallback)
{
    const CallbackRecorder recorder;
    const Follower handle;

    bring(handle, write_notice({5, 700}));

    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_TRUE(is_readable(handle.fd()));
    EXPECT_EQ(take(handle), write_notice({5, 700}));
}

TEST(NoticeDescriptor, IsGivenOnceARunningCallbackHasReturned)
{
    CallbackRecorder recorder;
    const Handle handle;
    std::atomic<bool> has_returned = false;
    std::atomic<bool> is_running = false;
    recorder.on_call([&](kp_t *, const kp_write_info *) {
        is_running = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // what the switch waits for
        has_returned = true;
    });
    std::thread receiver([&] { bring(handle, write_notice({5})); });
    ASSERT_TRUE(wait_until([&] { return is_running.load(); }));

    (void)kp_get_fd(handle);

    EXPECT_TRUE(has_returned);
    receiver.join();
}

TEST(NoticeDescriptor, TakesOverANoticeThatWaitedForTheSwitch)
{
    const CallbackRecorder recorder;
    const Handle handle;
    std::thread receiver;
    const Before in_the_switch(
        Call::eventfd, [&] { receiver = std::thread([&] { bring(handle, write_notice({5})); }); });

    (void)kp_get_fd(handle);
    receiver.join();

    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(take(handle), everything());
}

TEST(NoticeDescriptor, WorksWithoutACallback)
{
    const Handle handle("self", nullptr);
    ASSERT_GE(kp_get_fd(handle), 0);
    ASSERT_EQ(take(handle), everything());

    bring(handle, write_notice({1023}));

    EXPECT_EQ(take(handle), write_notice({1023}));
}

TEST(WaitingNotice, HasTheBitsOfAllNoticesSinceTheLastOne)
{
    const Follower handle;

    bring(handle, write_notice({0, 9}));
    bring(handle, write_notice({9, 64, 1023}));

    EXPECT_EQ(take(handle), write_notice({0, 9, 64, 1023}));
    EXPECT_EQ(take(handle), std::nullopt);
    EXPECT_FALSE(is_readable(handle.fd()));
}

TEST(WaitingNotice, WritesTheDescriptorOnceHoweverManyComeTogether)
{
    const Follower handle;
    const CountCalls writes{Call::write};

    bring(handle, write_notice({1}));
    bring(handle, write_notice({2}));
    bring(handle, write_notice({3}));

    EXPECT_EQ(writes.count(), 1);
}

TEST(WaitingNotice, DoesNotWriteADescriptorThatWasMadeReadable)
{
    const Handle handle;
    ASSERT_GE(kp_get_fd(handle), 0);
    const CountCalls writes(Call::write);

    bring(handle, write_notice({1}));

    EXPECT_EQ(writes.count(), 0);
}

TEST(WaitingNotice, IsTakenWithoutAWordWhateverErrnoIs)
{
    const Follower handle;
    bring(handle, write_notice({1}));
    StderrCapture log;
    errno = 0;

    EXPECT_EQ(take(handle), write_notice({1}));

    EXPECT_EQ(log.text(), "");
}

TEST(WaitingNotice, WithoutABitWakesNobody)
{
    const Follower handle;

    bring(handle, write_notice({}));

    EXPECT_FALSE(is_readable(handle.fd()));
    EXPECT_EQ(take(handle), std::nullopt);
}

TEST(WaitingNotice, OfANullArgumentTakesNothing)
{
    const Follower handle;
    bring(handle, write_notice({5}));
    kp_write_info notice{};
    StderrCapture log;

    EXPECT_EQ(kp_take_notice(nullptr, &notice), -1);
    EXPECT_EQ(kp_take_notice(handle, nullptr), -1);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_take_notice: kp is null",
                                  "ERROR: kp_take_notice: notice is null"}));
    EXPECT_TRUE(is_readable(handle.fd()));
    EXPECT_EQ(take(handle), write_notice({5}));
}

TEST(WaitingNotice, IsNoneBeforeThereIsADescriptor)
{
    const CallbackRecorder recorder;
    const Handle handle;
    const CountCalls reads{Call::read};

    EXPECT_EQ(take(handle), std::nullopt);

    EXPECT_EQ(reads.count(), 0);
    bring(handle, write_notice({5}));
    EXPECT_EQ(recorder.calls().size(), 1U);
}

TEST(WaitingNotice, LeavesErrnoAlone)
{
    const Follower handle;
    errno = ERANGE;

    EXPECT_EQ(take(handle), std::nullopt);

    EXPECT_EQ(errno, ERANGE);
}

TEST(WaitingNotice, IsAnnouncedByTheNextOneWhenTheDescriptorCannotBeWritten)
{
    const Follower handle;
    StderrCapture log;
    {
        const FailNext write{Call::write};
        bring(handle, write_notice({1}));
    }

    bring(handle, write_notice({2}));

    EXPECT_EQ(log.lines(), Lines{"WARN: merge_notice: write notice fd failed"});
    EXPECT_TRUE(is_readable(handle.fd()));
    EXPECT_EQ(take(handle), write_notice({1, 2}));
}

TEST(WaitingNotice, IsTakenEvenWhenTheDescriptorCannotBeRead)
{
    const Follower handle;
    bring(handle, write_notice({1}));
    StderrCapture log;
    const FailNext read{Call::read};

    EXPECT_EQ(take(handle), write_notice({1}));

    EXPECT_EQ(log.lines(), Lines{"WARN: kp_take_notice: read notice fd failed"});
    EXPECT_TRUE(is_readable(handle.fd())) << "so that the loop comes again";
}

TEST(WaitingNotice, ThatComesWhileOneIsTakenMakesTheDescriptorReadable)
{
    const Follower handle;
    bring(handle, write_notice({1}));
    const Before taken(Call::read, [&] { bring(handle, write_notice({2})); });

    EXPECT_EQ(take(handle), write_notice({1, 2}));

    bring(handle, write_notice({3}));
    EXPECT_TRUE(is_readable(handle.fd()));
    EXPECT_EQ(take(handle), write_notice({3}));
}

TEST(FollowedChanges, OfTheTimeBeforeTheSwitchAreFoundOnce)
{
    const Handle handle;
    Writer early("a");
    Writer late("b");
    ASSERT_TRUE(kp_tag_consumer_new(handle, "a") && kp_tag_consumer_new(handle, "b"));
    early.write(1);
    (void)kp_get_fd(handle);

    EXPECT_THAT(read_topics(handle, *take(handle)), ElementsAre("a"));

    late.write(1);
    bring(handle, write_notice({kp_hash("a"), kp_hash("b")}));
    EXPECT_THAT(read_topics(handle, *take(handle)), ElementsAre("b"));
}

TEST(FollowedChanges, AllowSubscribingAndDestroyingInTheWalk)
{
    const Follower handle;
    Writer first("Aa");
    Writer second("BB"); // of the same bucket
    Writer third("c");
    ASSERT_TRUE(kp_tag_consumer_new(handle, "Aa") && kp_tag_consumer_new(handle, "BB"));
    first.write(1);
    second.write(1);
    const std::string notice = write_notice({kp_hash("Aa")});
    kp_tag_iter_t iter{0, nullptr};

    kp_tag_t *found = kp_get_next_updated_tag(handle, as_write_info(notice), &iter);
    ASSERT_STREQ(kp_tag_get_topic(found), "BB");
    ASSERT_EQ(kp_tag_destroy(handle, found), 0);
    ASSERT_EQ(kp_sub_topic(handle, "c"), 0);
    found = kp_get_next_updated_tag(handle, as_write_info(notice), &iter);

    EXPECT_STREQ(kp_tag_get_topic(found), "Aa");
    EXPECT_THAT(topics_of(handle), testing::UnorderedElementsAre("Aa", "c"));
}

TEST(FollowedChanges, AreWalkedAgainAfterAPatternWasUnsubscribed)
{
    const Follower handle;
    Writer writer("a/b");
    follow(handle, "a/+");
    follow(handle, "+/+");
    writer.write(1);
    const std::string notice = write_notice({kp_hash("a/b")});
    kp_tag_iter_t iter{0, nullptr};
    ASSERT_NE(kp_get_next_updated_tag(handle, as_write_info(notice), &iter), nullptr);

    ASSERT_EQ(kp_unsub_topic(handle, "a/+"), 0);

    EXPECT_THAT(read_topics(handle, notice), ElementsAre("a/b"));
    EXPECT_THAT(read_topics(handle, notice), IsEmpty());
}

TEST(FollowedChanges, IncludeTopicsThatAreAnnouncedAfterTheSwitch)
{
    const Peer peer;
    const Follower handle;
    const UnixSocket sender = peer.accept();
    follow(handle, "a/+");
    Writer writer("a/b");
    ASSERT_TRUE(sender.send(new_tag_notice("a/b")));
    ASSERT_TRUE(wait_until([&] { return kp_get_tag(handle, "a/b") != nullptr; }));
    writer.write(1);

    ASSERT_TRUE(sender.send(write_notice({kp_hash("a/b")})));

    ASSERT_TRUE(is_readable(handle.fd(), std::chrono::seconds(10)));
    EXPECT_THAT(read_topics(handle, *take(handle)), ElementsAre("a/b"));
}

TEST(FollowedChanges, OfALoopThatStandsStillBlockNoProvider)
{
    const Follower consumer("consumer");
    const Handle provider("provider");
    kp_tag_t *source = kp_tag_provider_new(provider, "a", KP_TYPE_INT32, 4, 0);
    kp_tag_t *tag = kp_tag_consumer_new(consumer, "a");
    constexpr int32_t kNotices = 2000; // a connection holds about 278 that are unread

    // What is sent before the two have met reaches nobody.
    ASSERT_TRUE(wait_until([&] {
        const int32_t first = 0;
        return kp_tag_write(provider, source, &first, 4) == 4 && kp_tag_notify(provider) == 0 &&
               is_readable(consumer.fd(), std::chrono::milliseconds(10));
    }));
    (void)take(consumer);

    for (int32_t value = 1; value <= kNotices; ++value) {
        ASSERT_EQ(kp_tag_write(provider, source, &value, 4), 4);
        ASSERT_EQ(kp_tag_notify(provider), 0);
    }

    ASSERT_TRUE(is_readable(consumer.fd(), std::chrono::seconds(10)));
    EXPECT_THAT(read_topics(consumer, *take(consumer)), ElementsAre("a"));
    int32_t value = 0;
    EXPECT_EQ(kp_tag_read(tag, &value, 4), 4);
    EXPECT_EQ(value, kNotices);
}

// A receive thread that brings notices as fast as it can, and one thread that takes them. Before a
// bucket's bit its number is raised, so that whoever takes the last bit sees the last number.
TEST(FollowedChanges, LoseNoLastValueHoweverTheThreadsMeet)
{
    const Follower handle;
    constexpr int kRounds = 30'000;
    constexpr uint32_t kBuckets = 7;
    std::array<std::atomic<int>, kBuckets> written{};
    std::array<int, kBuckets> seen{};
    std::thread receiver([&] {
        for (int round = 1; round <= kRounds; ++round) {
            const auto bucket = static_cast<uint32_t>(round) % kBuckets;
            written[bucket].store(round, std::memory_order_relaxed);
            bring(handle, write_notice({bucket * 100}));
        }
    });

    const bool all_seen = wait_until([&] {
        while (is_readable(handle.fd()))
            if (const auto notice = take(handle))
                for (uint32_t bucket = 0; bucket < kBuckets; ++bucket)
                    if ((*notice)[1 + bucket * 100 / 8] >> bucket * 100 % 8 & 1)
                        seen[bucket] = written[bucket].load(std::memory_order_relaxed);
        return *std::max_element(seen.begin(), seen.end()) == kRounds;
    });
    receiver.join();

    EXPECT_TRUE(all_seen);
    if (const auto rest = take(handle))
        ADD_FAILURE() << "bits without a readable descriptor";
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket)
        EXPECT_EQ(seen[bucket], written[bucket].load()) << "of bucket " << bucket;
}

} // namespace
