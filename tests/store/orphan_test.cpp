// A topic that is opened while its last user closes it: no handle is left with a deleted file,
// which nobody else would find.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/child.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;

namespace {

// Says whether the topic's file is the one that the handle has mapped: what is stored through the
// one is seen through the other.
bool is_found_by_others(kp_shm_t *shm, const std::string &topic)
{
    kp_shm_set_last_update_ts(shm, 0);
    if (!SegmentFile(topic).exists())
        return false;
    const uint64_t mark = kp_shm_get_timestamp_us();
    SegmentFile(topic).put_u64(at::source_ts, mark);
    return shm->mem->source_ts == mark;
}

// The calls between which an open can be overtaken.
struct Pause {
    Call call;
    long number;
};

void PrintTo(const Pause &pause, std::ostream *out)
{
    *out << name_of(pause.call) << pause.number;
}

std::string name_of_pause(const testing::TestParamInfo<Pause> &info)
{
    return name_of(info.param.call) + std::to_string(info.param.number);
}

class AnOpenThatPauses : public testing::TestWithParam<Pause> {};

// As far as an open of an existing file goes: it looks for the directory, opens the file, gives it
// its size and page, maps and locks it, counts, looks whether the file is still linked, and gives
// lock and descriptor back.
INSTANTIATE_TEST_SUITE_P(Before, AnOpenThatPauses,
                         testing::Values(Pause{Call::syscall, 1}, Pause{Call::close, 1},
                                         Pause{Call::syscall, 2}, Pause{Call::ftruncate, 1},
                                         Pause{Call::fallocate, 1}, Pause{Call::mmap, 1},
                                         Pause{Call::flock, 1}, Pause{Call::sem_init, 1},
                                         Pause{Call::sem_clockwait, 1}, Pause{Call::sem_post, 1},
                                         Pause{Call::fstat, 1}, Pause{Call::flock, 2},
                                         Pause{Call::close, 2}),
                         name_of_pause);

TEST_P(AnOpenThatPauses, WhileTheLastUserClosesIsFoundByOthers)
{
    std::optional<OpenedSegment> last_user(std::in_place, "a");
    Before pause{GetParam().call, [&last_user] { last_user.reset(); }, GetParam().number};

    const OpenedSegment shm("a", KP_ROLE_CONSUMER);

    EXPECT_FALSE(last_user);
    EXPECT_TRUE(is_found_by_others(shm, "a"));
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 0);
}

// Opens when told, and tells whether others find what it has.
int open_when_told(Channel &parent)
{
    if (!parent.hear())
        return 1;
    Before waiting{Call::usleep, [&parent] { (void)parent.tell("waits"); }};
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    if (!shm)
        return 2;
    (void)parent.tell("opened");
    if (!parent.hear())
        return 3;
    return is_found_by_others(shm, "a") ? 0 : 4;
}

TEST(AnOpen, WaitsForACloseThatIsJustRemovingTheFile)
{
    ChildProcess opener(open_when_told);
    OpenedSegment last_user("a");
    {
        Before removing{Call::unlinkat, [&opener] {
                            EXPECT_TRUE(opener.tell("open"));
                            EXPECT_EQ(opener.hear(), "waits");
                        }};
        last_user.close();
    }

    EXPECT_EQ(opener.hear(), "opened");
    EXPECT_TRUE(opener.tell("look"));
    EXPECT_EQ(opener.wait(), 0);
}

TEST(AnOpen, LeavesTheFileAloneThatAnotherOneHasMadeMeanwhile)
{
    OpenedSegment old_user("a");
    SegmentFile("a").remove();
    const OpenedSegment new_user("a");

    old_user.close();

    EXPECT_TRUE(is_found_by_others(new_user, "a"));
}

// Takes the lock of a file and keeps it until it is told, or killed.
int keep_the_lock(Channel &parent)
{
    const int fd = open(segment_file_path("a").c_str(), O_RDWR | O_CLOEXEC);
    (void)parent.tell(flock(fd, LOCK_EX) == 0 ? "locked" : "failed");
    (void)parent.hear();
    return 0;
}

TEST(TheLockOfAFile, IsFreeWhenItsHolderIsKilled)
{
    SegmentFile("a").create();
    ChildProcess holder(keep_the_lock);
    ASSERT_EQ(holder.hear(), "locked");
    holder.signal(SIGKILL);
    ASSERT_EQ(holder.wait(), 128 + SIGKILL);
    CountCalls tries{Call::flock};

    const OpenedSegment shm("a");

    EXPECT_EQ(tries.count(), 2);
}

TEST(TheLockOfAFile, IsWaitedForUntilItsHolderGivesItBack)
{
    SegmentFile("a").create();
    ChildProcess holder(keep_the_lock);
    ASSERT_EQ(holder.hear(), "locked");
    Before third_pause{Call::usleep,
                       [&holder] {
                           EXPECT_TRUE(holder.tell("end"));
                           EXPECT_EQ(holder.wait(), 0);
                       },
                       3};

    const OpenedSegment shm("a");

    EXPECT_TRUE(is_found_by_others(shm, "a"));
}

TEST(TheLockOfAFile, IsWaitedForASecondAndThenDoneWithout)
{
    SegmentFile("a").create();
    ChildProcess holder(keep_the_lock);
    ASSERT_EQ(holder.hear(), "locked");
    const auto start = std::chrono::steady_clock::now();

    OpenedSegment shm("a");
    shm.close();

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline);
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(TheLockOfAFile, IsDoneWithoutWhereThereIsNone)
{
    FailFrom fault{Call::flock, 1, ENOLCK};

    OpenedSegment shm("a");
    shm.close();

    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(TheLockOfAFile, IsGivenBackAlthoughAMappingKeepsTheFileOpen)
{
    const OpenedSegment first("a");
    CountCalls pauses{Call::usleep};

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(pauses.count(), 0);
}

// A topic whose file has no name of its own any more and is found all the same, so that every look
// at it finds it removed.
class RemovedFile {
  public:
    explicit RemovedFile(const std::string &topic) : path_(segment_file_path(topic))
    {
        SegmentFile(topic).create();
        SegmentFile("source").create();
        const std::string source = segment_file_path("source");
        EXPECT_EQ(mount(source.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(unlink(source.c_str()), 0);
    }
    RemovedFile(const RemovedFile &) = delete;
    RemovedFile &operator=(const RemovedFile &) = delete;
    ~RemovedFile()
    {
        EXPECT_EQ(umount(path_.c_str()), 0);
    }

  private:
    std::string path_;
};

TEST(OpeningAFileThatIsAlwaysRemoved, EndsAndLeavesNothingBehind)
{
    const RemovedFile file("a");
    StderrCapture log;
    const Holdings before = Holdings::now();
    const CountCalls looks(Call::sem_init);
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    const auto duration = std::chrono::steady_clock::now() - start;
    EXPECT_GE(looks.count(), 10);
    EXPECT_LE(looks.count(), 100);
    EXPECT_TRUE(looks.count() == 100 || duration >= std::chrono::seconds(2));
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_new: open shm(increase 'ulimit -n'): Stale file "
                                 "handle"});
    EXPECT_EQ(Holdings::now(), before);
    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
}

TEST(OpeningAFileThatIsAlwaysRemoved, EndsAfterTenTriesWhenTwoSecondsAreOver)
{
    const RemovedFile file("a");
    const StderrCapture log;
    const CountCalls looks(Call::sem_init);
    const Before first{Call::sem_init, [] { (void)usleep(2'100'000); }};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_EQ(looks.count(), 10);
}

TEST(AClose, UncountsWithoutADescriptorOfItsOwnWhileOthersAreOpen)
{
    OpenedSegment first("a");
    const OpenedSegment second("a", KP_ROLE_CONSUMER);
    CountCalls calls{{Call::syscall, Call::openat, Call::flock}};

    first.close();

    EXPECT_EQ(calls.count(), 0);
}

// Opens files until there is no descriptor left; says how many that were.
long use_up_descriptors()
{
    const rlimit few{24, 24};
    (void)setrlimit(RLIMIT_NOFILE, &few);
    long count = 0;
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0)
        ++count;
    return count;
}

TEST(AClose, WithNoDescriptorLeftRemovesTheFileAllTheSame)
{
    ChildProcess child([](Channel &) {
        OpenedSegment shm("a/b");
        const long used = use_up_descriptors();
        shm.close();
        const bool as_before = open("/dev/null", O_RDONLY | O_CLOEXEC) == -1;
        return used > 0 && as_before && !SegmentFile("a/b").exists() ? 0 : 1;
    });

    EXPECT_EQ(child.wait(), 0);
}

// The signals that the calling thread lets wait.
bool is_blocked(int signal)
{
    sigset_t set;
    return pthread_sigmask(SIG_SETMASK, nullptr, &set) == 0 && sigismember(&set, signal) == 1;
}

TEST(AClose, WithNoDescriptorLeftLetsNoSignalInterruptItsHelper)
{
    OpenedSegment shm("a");
    const FailNext walk(Call::syscall, EMFILE);
    bool blocked_in_helper = false;
    const Before helping{Call::unshare, [&] { blocked_in_helper = is_blocked(SIGUSR1); }};

    shm.close();

    EXPECT_TRUE(blocked_in_helper);
    EXPECT_FALSE(is_blocked(SIGUSR1));
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(AClose, WithoutADescriptorForTheFileAloneRemovesItAllTheSame)
{
    OpenedSegment shm("a");
    const FailNext opening(Call::openat, EMFILE);

    shm.close();

    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(AClose, NeedsNoHelperWhereADescriptorIsToBeHad)
{
    OpenedSegment shm("a");
    OpenedSegment replaced("b");
    SegmentFile("b").remove();
    SegmentFile("b").create();
    const CountCalls threads(Call::pthread_create);

    errno = EMFILE; // of something else
    shm.close();
    errno = EMFILE;
    replaced.close();

    EXPECT_EQ(threads.count(), 0);
    EXPECT_FALSE(SegmentFile("a").exists());
    EXPECT_TRUE(SegmentFile("b").exists());
}

TEST(AClose, WithNoDescriptorToBeHadLeavesTheFileUncounted)
{
    OpenedSegment shm("a");

    {
        const NoDescriptorLeft none;
        shm.close();
    }

    EXPECT_TRUE(SegmentFile("a").exists());
    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
}

TEST(AClose, WithNoDescriptorLeftDoesNotTakeTheFileFromWhoIsJustOpeningIt)
{
    std::optional<OpenedSegment> last_user(std::in_place, "a");
    Before counting{Call::sem_init, [&last_user] {
                        const NoDescriptorLeft none;
                        last_user.reset();
                    }};

    const OpenedSegment shm("a", KP_ROLE_CONSUMER);

    EXPECT_TRUE(is_found_by_others(shm, "a"));
}

} // namespace
