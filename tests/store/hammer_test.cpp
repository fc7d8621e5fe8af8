// Processes that open and close one topic as fast as they can: each handle must be on the file that
// others find, for as long as it is open. `KP_HAMMER_OPENS` says how many opens all processes of a
// test make together; docs/reliability.md has the figures of a long run.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace kptest;

namespace {

constexpr const char *kTopic = "hammer/value";
constexpr std::chrono::hours kLongRun{3};

long opens_of_a_test()
{
    const char *given = std::getenv("KP_HAMMER_OPENS");
    return given ? std::atol(given) : 5'000;
}

bool is_on_the_file_of_the_topic(const kp_shm_t &shm)
{
    struct stat status;
    return stat(segment_file_path(kTopic).c_str(), &status) == 0 &&
           shm.file == kp::FileId{status.st_dev, status.st_ino};
}

// What a process does with its handle before it closes it.
using Interlude = void (*)();

void go_on_at_once()
{
}

// What one process has seen. It tells this in a line.
struct Tally {
    long orphans = 0;
    long failures = 0;

    std::string text() const
    {
        return std::to_string(orphans) + " orphans, " + std::to_string(failures) + " failures";
    }
};

void hammer_once(Tally &tally, uint32_t role, Interlude interlude)
{
    kp_shm_t *shm = kp_shm_new(kTopic, role);
    if (!shm) {
        ++tally.failures;
        return;
    }
    tally.orphans += !is_on_the_file_of_the_topic(*shm);
    interlude();
    tally.orphans += !is_on_the_file_of_the_topic(*shm);
    tally.failures += kp_shm_destroy(shm, kTopic, role) != 0;
}

std::function<int(Channel &)> hammer(long opens, Interlude interlude = go_on_at_once)
{
    return [opens, interlude](Channel &parent) {
        Tally tally;
        for (long count = 0; count < opens; ++count)
            hammer_once(tally, count % 2 ? KP_ROLE_CONSUMER : KP_ROLE_PROVIDER, interlude);
        (void)parent.tell(tally.text());
        return 0;
    };
}

using Family = std::vector<std::unique_ptr<ChildProcess>>;

void expect_no_orphans(const Family &family)
{
    for (const auto &child : family)
        EXPECT_EQ(child->hear(kLongRun), "0 orphans, 0 failures");
}

void hammer_together(int processes, long opens)
{
    Family family;
    for (int count = 0; count < processes; ++count)
        family.push_back(std::make_unique<ChildProcess>(hammer(opens / processes)));
    expect_no_orphans(family);
    EXPECT_FALSE(SegmentFile(kTopic).exists());
}

TEST(Hammering, ByTwoProcessesLeavesNoHandleOnADeletedFile)
{
    hammer_together(2, opens_of_a_test());
}

TEST(Hammering, ByFourProcessesLeavesNoHandleOnADeletedFile)
{
    hammer_together(4, opens_of_a_test());
}

// Opens files, over an interlude, until there is no descriptor left.
void use_up_descriptors_and_close(void (*action)())
{
    std::vector<int> used;
    for (int fd = dup(STDIN_FILENO); fd >= 0; fd = dup(STDIN_FILENO))
        used.push_back(fd);
    action();
    for (const int fd : used)
        (void)close(fd);
}

TEST(Hammering, ByAProcessThatClosesWithoutADescriptorLeavesNone)
{
    const long opens = opens_of_a_test() / 20;
    Family family;
    family.push_back(std::make_unique<ChildProcess>(hammer(opens)));
    family.push_back(std::make_unique<ChildProcess>([opens](Channel &parent) {
        const rlimit few{24, 24};
        (void)setrlimit(RLIMIT_NOFILE, &few);
        static kp_shm_t *shm;
        Tally tally;
        for (long count = 0; count < opens; ++count) {
            shm = kp_shm_new(kTopic, KP_ROLE_CONSUMER);
            tally.failures += !shm;
            tally.orphans += shm && !is_on_the_file_of_the_topic(*shm);
            use_up_descriptors_and_close(
                [] { (void)kp_shm_destroy(shm, kTopic, KP_ROLE_CONSUMER); });
        }
        (void)parent.tell(tally.text());
        return 0;
    }));

    expect_no_orphans(family);
    EXPECT_FALSE(SegmentFile(kTopic).exists());
}

// Two processes hammer while a third one that does so too is killed.
void kill_one_of_three(std::chrono::microseconds after)
{
    Family family;
    for (int count = 0; count < 2; ++count)
        family.push_back(std::make_unique<ChildProcess>(hammer(300)));
    ChildProcess victim(hammer(1'000'000));
    std::this_thread::sleep_for(after);
    victim.signal(SIGKILL);
    expect_no_orphans(family);
    std::filesystem::remove_all("/dev/shm/zu-kp"); // the victim has left its count
}

TEST(Hammering, BesideProcessesThatAreKilledLeavesNone)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round)
        kill_one_of_three(std::chrono::microseconds(random() % 10'000));
}

} // namespace
