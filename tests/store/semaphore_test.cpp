// The segment's semaphore, which guards the counts alone: who waits for it, and that no wait lasts
// for ever, whatever other processes do with it.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/child.h"
#include "testing/faults.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace kptest;

namespace {

// The semaphore of a topic's file, through a mapping of the test's own.
class FileSemaphore {
  public:
    explicit FileSemaphore(const std::string &topic)
    {
        const int fd = open(segment_file_path(topic).c_str(), O_RDWR | O_CLOEXEC);
        memory_ = mmap(nullptr, 4080, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(memory_, MAP_FAILED);
        (void)close(fd);
    }
    FileSemaphore(const FileSemaphore &) = delete;
    FileSemaphore &operator=(const FileSemaphore &) = delete;
    ~FileSemaphore()
    {
        (void)munmap(memory_, 4080);
    }

    bool take()
    {
        return sem_trywait(get()) == 0;
    }
    void give()
    {
        (void)sem_post(get());
    }
    int value()
    {
        int value = -1;
        (void)sem_getvalue(get(), &value);
        return value;
    }

  private:
    sem_t *get()
    {
        return static_cast<sem_t *>(memory_);
    }

    void *memory_;
};

std::chrono::milliseconds time_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

// Opens a segment, takes its semaphore and says so; lives until it is killed.
int hold_the_semaphore(Channel &parent)
{
    const kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    FileSemaphore semaphore("a");
    (void)parent.tell(shm && semaphore.take() ? "held" : "failed");
    (void)parent.hear();
    return 0;
}

// Closes a segment that it has opened, when told to, and says when it waits for the semaphore.
int close_when_told(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    if (!shm || !parent.tell("open") || !parent.hear())
        return 1;
    Before second_wait{Call::sem_clockwait, [&parent] { (void)parent.tell("waiting"); }, 2};
    CountCalls waits{Call::sem_clockwait};
    if (kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER) != 0)
        return 2;
    return waits.count() < 50 ? 0 : 3; // well before it gives its holder up
}

TEST(Semaphore, IsFreeAfterOpening)
{
    const OpenedSegment shm("a");

    EXPECT_EQ(FileSemaphore("a").value(), 1);
}

TEST(Semaphore, IsSharedBetweenProcesses)
{
    const OpenedSegment shm("a");
    sem_t private_semaphore;
    sem_t shared_semaphore;
    ASSERT_EQ(sem_init(&private_semaphore, 0, 1), 0);
    ASSERT_EQ(sem_init(&shared_semaphore, 1, 1), 0);

    const std::string stored = SegmentFile("a").bytes(at::sem, sizeof(sem_t));

    // The C library keeps the two apart in the same bytes.
    EXPECT_EQ(stored.substr(0, 12),
              std::string(reinterpret_cast<const char *>(&shared_semaphore), 12));
    EXPECT_NE(stored.substr(0, 12),
              std::string(reinterpret_cast<const char *>(&private_semaphore), 12));
}

TEST(Semaphore, IsInitialisedAgainByEveryOpen)
{
    const OpenedSegment first("a");
    FileSemaphore semaphore("a");
    ASSERT_TRUE(semaphore.take());

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(semaphore.value(), 1);
}

TEST(Semaphore, IsHeldWhileACountChanges)
{
    const OpenedSegment first("a");
    FileSemaphore semaphore("a");
    int value_before_post = -1;
    Before post{Call::sem_post, [&] { value_before_post = semaphore.value(); }};

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(value_before_post, 0);
}

TEST(Semaphore, IsNotTouchedByWritesAndReads)
{
    const DeclaredSegment shm("a");
    FileSemaphore semaphore("a");
    ASSERT_TRUE(semaphore.take());
    uint32_t value = 7;

    EXPECT_EQ(kp_shm_write(shm, &value, 4, 1, 1, 1), 4);
    EXPECT_EQ(kp_shm_read(shm, &value, 4, nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(kp_shm_instant_write("a", &value, KP_TYPE_UINT32, 4, 1, 1, 1, 1), 0);
    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), 0);

    EXPECT_EQ(semaphore.value(), 0);
    semaphore.give();
}

TEST(WaitForTheSemaphore, GoesOnAfterAnInterruption)
{
    const OpenedSegment first("a");
    FailNext interruption{Call::sem_clockwait, EINTR};

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
    EXPECT_EQ(FileSemaphore("a").value(), 1);
}

TEST(WaitForTheSemaphore, GoesOnAfterAStepOfTime)
{
    const OpenedSegment first("a");
    FailNext step{Call::sem_clockwait, ETIMEDOUT};

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
    EXPECT_EQ(FileSemaphore("a").value(), 1);
}

TEST(WaitForTheSemaphore, EndsWhenItIsGivenBack)
{
    OpenedSegment shm("a");
    FileSemaphore semaphore("a");
    ASSERT_TRUE(semaphore.take());
    Before second_step{Call::sem_clockwait, [&semaphore] { semaphore.give(); }, 2};
    const CountCalls waits(Call::sem_clockwait);

    shm.close();

    EXPECT_EQ(waits.count(), 2);
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(WaitForTheSemaphore, EndsWhenAnotherOpenInitialisesItAgain)
{
    OpenedSegment shm("a");
    ChildProcess waiter(close_when_told);
    ASSERT_EQ(waiter.hear(), "open");
    FileSemaphore semaphore("a");
    ASSERT_TRUE(semaphore.take());
    ASSERT_TRUE(waiter.tell("close"));
    ASSERT_EQ(waiter.hear(), "waiting");

    const OpenedSegment another("a");

    EXPECT_EQ(waiter.wait(), 0);
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 2);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
}

TEST(WaitForTheSemaphore, EndsWhenItsHolderWasKilled)
{
    OpenedSegment shm("a");
    ChildProcess holder(hold_the_semaphore);
    ASSERT_EQ(holder.hear(), "held");
    holder.signal(SIGKILL);
    ASSERT_EQ(holder.wait(), 128 + SIGKILL);
    const CountCalls waits(Call::sem_clockwait);
    const auto start = std::chrono::steady_clock::now();

    shm.close();

    EXPECT_LT(time_since(start), kDeadline);
    EXPECT_GE(time_since(start), std::chrono::seconds(1)); // who only works slowly gets it in time
    EXPECT_LE(waits.count(), 101);                         // each step waits for ten milliseconds
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 0);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
}

TEST(WaitForTheSemaphore, EndsEvenWhenASignalInterruptsEveryStep)
{
    OpenedSegment shm("a");
    FailFrom interruptions{Call::sem_clockwait, 1, EINTR};

    shm.close();

    EXPECT_TRUE(interruptions.fired());
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(WaitForTheSemaphore, GivesNothingBackThatItNeverGot)
{
    OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const OpenedSegment provider("a");
    FileSemaphore semaphore("a");
    ASSERT_TRUE(semaphore.take());

    consumer.close();

    EXPECT_EQ(semaphore.value(), 0);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
    semaphore.give();
}

} // namespace
