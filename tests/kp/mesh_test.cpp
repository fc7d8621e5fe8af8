// What peers, gc and doctor say of endpoints and topics with a problem.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

// An application with one endpoint and one provided topic, in a process of its own.
int run_application(Channel &parent)
{
    kp_t *handle = kp_new("application", ignore_notice);
    (void)kp_tag_provider_new(handle, "plant/speed", KP_TYPE_DOUBLE, 8, 0);
    (void)parent.tell("running");
    (void)parent.hear(std::chrono::minutes(10));
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
    return 0;
}

// Maps a topic's file again and again.
class ManyMappings {
  public:
    ManyMappings(const std::string &topic, std::size_t count)
    {
        const int fd = open(segment_file_path(topic).c_str(), O_RDONLY | O_CLOEXEC);
        for (mapped_.reserve(count); mapped_.size() < count;)
            mapped_.push_back(mmap(nullptr, at::end, PROT_READ, MAP_SHARED, fd, 0));
        (void)close(fd);
    }
    ManyMappings(const ManyMappings &) = delete;
    ManyMappings &operator=(const ManyMappings &) = delete;
    ~ManyMappings()
    {
        for (void *memory : mapped_)
            (void)munmap(memory, at::end);
    }
    bool succeeded() const
    {
        return std::ranges::find(mapped_, MAP_FAILED) == mapped_.end();
    }

  private:
    std::vector<void *> mapped_;
};

// Numbers that no distribution gives to anybody.
constexpr uid_t kFirstFreeUser = 20'000;
constexpr uid_t kFreeUsers = 40'000;

} // namespace

TEST(KpPeers, FindsNobodyWhereNobodyIs)
{
    EXPECT_EQ(kp({"peers"}).code, 1);
    EXPECT_EQ(kp({"peers"}).out, "");
}

TEST(KpPeers, ShowsEachEndpointWithItsProcessAndConnections)
{
    ChildProcess application(run_application);
    ASSERT_EQ(application.hear(), "running");
    kp_t *other = kp_new("other", ignore_notice);
    const auto connections = [] {
        return filtered(kp({"peers", "-j"}).out,
                        {"jq", "-c", "[.name,.state,.connections,.max_connections]"});
    };

    EXPECT_TRUE(wait_until([&] {
        return connections() == "[\"application\",\"live\",1,31]\n[\"other\",\"live\",1,31]\n";
    })) << connections();
    EXPECT_THAT(kp({"peers"}).out,
                ContainsRegex("application  live +" + std::to_string(application.pid()) + " "));
    (void)kp_destroy(other);
    (void)application.tell("end");
}

TEST(KpPeers, TellsDeadSocketsAndForeignFiles)
{
    UnixSocket::leave_dead_file("/run/providers/gone");
    std::ofstream("/run/providers/notes") << "text";

    EXPECT_EQ(filtered(kp({"peers", "-j"}).out, {"jq", "-c", "[.name,.state,.note]"}),
              "[\"gone\",\"dead\",\"dead: nobody listens (kp gc removes it)\"]\n"
              "[\"notes\",\"foreign\",\"not a socket\"]\n");
}

TEST(KpPeers, CountsWhatAStoppedPeerHasNotRead)
{
    ChildProcess application(run_application);
    ASSERT_EQ(application.hear(), "running");
    kp_t *other = kp_new("other", ignore_notice);
    const auto unread = [] {
        return filtered(kp({"peers", "-j"}).out,
                        {"jq", "-c", "select(.name==\"application\")|[.unread,.stopped]"});
    };
    ASSERT_TRUE(wait_until([&] { return unread() == "[0,false]\n"; })) << unread();
    application.signal(SIGSTOP);

    // Ten notices of 129 bytes wait for the stopped process once it has connected.
    ASSERT_TRUE(wait_until([] {
        return filtered(kp({"peers", "-j"}).out,
                        {"jq", "-c", "select(.name==\"other\")|.connections"}) == "1\n";
    }));
    for (int count = 0; count < 10; ++count)
        (void)kp_tag_notify(other);

    EXPECT_TRUE(wait_until([&] { return unread() == "[1290,true]\n"; })) << unread();
    EXPECT_THAT(findings_of(kp({"doctor", "-j"}), "\\(.check)"), HasSubstr("error peer-stopped\n"));
    application.signal(SIGCONT);
    (void)kp_destroy(other);
    (void)application.tell("end");
}

TEST(KpGc, RemovesSocketsThatRefuseAndLeavesLiveOnesAlone)
{
    // This is no endpoint of the library, which would remove the other one itself after three
    // seconds.
    const UnixSocket live = UnixSocket::listening("/run/providers/live");
    UnixSocket::leave_dead_file("/run/providers/gone");

    const Ran dry = kp({"gc", "-n"});
    const bool still_there = exists("/run/providers/gone");
    const Ran real = kp({"gc"});

    EXPECT_EQ(dry.out,
              "/run/providers/gone: a socket that refuses connections; would be removed\n");
    EXPECT_TRUE(still_there);
    EXPECT_EQ(real.out, "/run/providers/gone: a socket that refuses connections; removed\n");
    EXPECT_EQ(real.code, 0);
    EXPECT_FALSE(exists("/run/providers/gone"));
    EXPECT_TRUE(exists("/run/providers/live"));
}

TEST(KpGc, RemovesATopicWhoseCountsHaveNoProcess)
{
    {
        ChildProcess killed([](Channel &parent) {
            (void)kp_shm_new("a", KP_ROLE_PROVIDER);
            (void)parent.tell("open");
            (void)parent.hear(std::chrono::minutes(10));
            return 0;
        });
        ASSERT_EQ(killed.hear(), "open");
        killed.signal(SIGKILL);
        ASSERT_EQ(killed.wait(), 128 + SIGKILL);
    }
    ASSERT_TRUE(SegmentFile("a").exists());

    const Ran dry = kp({"gc", "-n", "--trust-visible"});
    const bool still_there = SegmentFile("a").exists();
    const Ran real = kp({"gc", "--trust-visible"});

    EXPECT_EQ(dry.out, "a: counts 1 providers and 0 consumers, 0 are open; would be removed\n");
    EXPECT_TRUE(still_there);
    EXPECT_EQ(real.out, "a: counts 1 providers and 0 consumers, 0 are open; removed\n");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(KpGc, CorrectsACountOfOneRoleAndKeepsWhatIsOpen)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    SegmentFile("a").put_u8(at::consumer_refs, 3);

    const Ran ran = kp({"gc", "--trust-visible"});

    EXPECT_EQ(ran.out, "a: counts 0 providers and 3 consumers, 1 are open; corrected\n");
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(KpGc, LeavesCountsAloneThatItCannotTellApart)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    SegmentFile("a").put_u8(at::provider_refs, 1);

    const Ran ran = kp({"gc", "--trust-visible"});

    EXPECT_THAT(ran.out, HasSubstr("left alone, since either may be gone\n"));
    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0x0101);
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
}

TEST(KpGc, TouchesNothingThatIsInOrder)
{
    kp_t *live = kp_new("live", ignore_notice);
    (void)kp_tag_provider_new(live, "a", KP_TYPE_INT8, 1, 0);
    put_double("one/shot", 1);
    const std::string before = store_picture();

    const Ran ran = kp({"gc", "--trust-visible"});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(store_picture(), before);
    (void)kp_tags_destroy(live);
    (void)kp_destroy(live);
}

TEST(KpGc, RemovesOldOrphansAndEmptyDirectoriesWhenAsked)
{
    put_double("old/topic", 1);
    SegmentFile("old/topic").put_u64(at::last_write_ts, 1);
    const std::array<timespec, 2> long_ago = {{{1, 0}, {1, 0}}};
    ASSERT_EQ(utimensat(AT_FDCWD, segment_file_path("old/topic").c_str(), long_ago.data(), 0), 0);
    put_double("new/topic", 1);
    std::filesystem::create_directories("/dev/shm/zu-kp/empty");

    const Ran young = kp({"gc", "--orphans", "--trust-visible"});
    const Ran all = kp({"gc", "--orphans", "--trust-visible", "--older-than", "0"});

    EXPECT_THAT(young.out, AllOf(testing::StartsWith("old/topic: an orphan, written "),
                                 Not(HasSubstr("new/topic"))));
    EXPECT_FALSE(SegmentFile("old/topic").exists());
    EXPECT_THAT(all.out, HasSubstr("empty/: an empty directory; removed\n"));
    EXPECT_FALSE(exists("/dev/shm/zu-kp/empty"));
    EXPECT_TRUE(SegmentFile("new/topic").exists()); // written in the future, so never old
}

TEST(KpGc, GivesWhatItDoesAsJson)
{
    UnixSocket::leave_dead_file("/run/providers/gone");
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    SegmentFile("a").put_u8(at::consumer_refs, 3);
    std::filesystem::create_directories("/dev/shm/zu-kp/empty");
    const std::vector<std::string> command = {"gc",        "-j",           "--trust-visible",
                                              "--orphans", "--older-than", "0"};
    std::vector<std::string> dry_command = command;
    dry_command.emplace_back("-n");

    const Ran dry = kp(dry_command);
    const Ran real = kp(command);

    EXPECT_EQ(filtered(dry.out, {"jq", "-c", "[.dry_run, .path // .topic, .what, .action]"}),
              "[true,\"/run/providers/gone\",\"dead-socket\",\"remove\"]\n"
              "[true,\"a\",\"dead-counts\",\"correct\"]\n"
              "[true,\"/dev/shm/zu-kp/empty\",\"empty-directory\",\"remove\"]\n");
    EXPECT_EQ(filtered(real.out, {"jq", "-c", "[.dry_run, .text]"}),
              "[false,\"a socket that refuses connections\"]\n"
              "[false,\"counts 0 providers and 3 consumers, 1 are open\"]\n"
              "[false,\"an empty directory\"]\n");
    EXPECT_FALSE(exists("/dev/shm/zu-kp/empty"));
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
}

TEST(KpGc, ProvesNothingAsAUserWhoSeesHalf)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    SegmentFile("a").put_u8(at::provider_refs, 1);

    const Ran ran = kp({"gc"}, {.uid = user});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.code, 3);
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
}

TEST(KpDoctor, FindsNothingWhereAllIsWell)
{
    ChildProcess application(run_application);
    ASSERT_EQ(application.hear(), "running");
    ASSERT_EQ(chmod("/run/providers", 03775), 0);

    // A test beside this one may use up the inotify instances of some user for a moment.
    Ran ran;
    EXPECT_TRUE(wait_until([&ran] {
        ran = kp({"doctor"});
        return ran.code == 0;
    })) << ran.out;
    EXPECT_THAT(ran.out, HasSubstr("healthy: 1 topics, 1 endpoints\n"));
    (void)application.tell("end");
}

TEST(KpDoctor, FindsEveryKindOfBrokenTopic)
{
    put_double("stuck", 1);
    SegmentFile("stuck").put_u64(at::last_write_ts, 1);
    SegmentFile("stuck").put_u8(at::writing, 1);
    put_double("corrupt", 1);
    SegmentFile("corrupt").put_u64(at::last_write_ts, 1);
    SegmentFile("corrupt").put_u32(at::value_type, 99);
    put_double("future", 1);
    SegmentFile("short").create(3);
    put_double("odd", 1);
    SegmentFile("odd").put_u64(at::last_write_ts, 1);
    SegmentFile("odd").put_u8(at::reserved, 1);
    std::filesystem::create_directories("/run/providers");
    ASSERT_EQ(chmod("/run/providers", 03775), 0);

    const Ran ran = kp({"doctor", "-j"});

    EXPECT_EQ(findings_of(ran, "\\(.check)"), "error corrupt\n"
                                              "error not-a-segment\n"
                                              "error writing\n"
                                              "warning future\n"
                                              "warning foreign-layout\n");
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(kp({"doctor"}).out, HasSubstr("error: stuck: a write has begun and does not end"));
}

TEST(KpDoctor, NamesTopicsSoThatItsCommandsCanBePasted)
{
    SegmentFile("a'; b; '").create(3);
    SegmentFile("c\n'\\").create(3);
    SegmentFile("-x").create(3);
    const std::string first = R"('a'\''; b; '\''')";
    const std::string second = R"($'c\n\'\\')";

    const std::string fixes = filtered(kp({"doctor", "-j"}).out,
                                       {"jq", "-r", "select(.check==\"not-a-segment\") | .fix"});

    EXPECT_EQ(fixes, "kp rm -- '-x'\nkp rm " + first + "\nkp rm " + second + "\n");
    EXPECT_EQ(run_program({"bash", "-c", "printf '%s|' " + first + " " + second}).out,
              "a'; b; '|c\n'\\|");
    EXPECT_EQ(kp({"rm", "--", "-x"}).code, 0);
}

TEST(KpDoctor, FindsAProcessThatComesNearItsLimitOfMappings)
{
    put_double("a", 1);
    std::size_t limit = 0;
    std::ifstream("/proc/sys/vm/max_map_count") >> limit;
    const std::string name = shown(getpid());
    EXPECT_THAT(kp({"doctor"}).out, Not(HasSubstr("mappings; each open topic takes one")));

    const ManyMappings many("a", limit * 95 / 100);

    ASSERT_TRUE(many.succeeded());
    EXPECT_THAT(kp({"doctor"}).out, ContainsRegex("warning: " + name + " .*: has [0-9]+ of " +
                                                  std::to_string(limit) + " mappings"));
}

TEST(KpDoctor, FindsAnEndpointThatComesNearItsLimitOfDescriptors)
{
    ChildProcess application(run_application);
    ASSERT_EQ(application.hear(), "running");
    EXPECT_THAT(kp({"doctor"}).out, Not(HasSubstr("descriptors open")));
    const rlimit few = {64, 4096};
    ASSERT_EQ(prlimit(application.pid(), RLIMIT_NOFILE, &few, nullptr), 0);

    const std::string out = kp({"doctor"}).out;

    const std::string pid = std::to_string(application.pid());
    EXPECT_THAT(out,
                ContainsRegex("warning: " + shown(application.pid()) +
                              " .*: has [0-9]+ of 64 descriptors open; each further peer takes "
                              "two  .prlimit --pid " +
                              pid + " --nofile=1024:.\n"));
    (void)application.tell("end");
}

TEST(KpDoctor, FindsAUserWhoHasNearlyAllInotifyInstances)
{
    std::size_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_user_instances") >> limit;
    if (limit > 1024)
        GTEST_SKIP() << "this system has more inotify instances for a user than a test may take";
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    // It uses those of another user, since other tests need those of this one, and of another one
    // in each run of it.
    const uid_t user = kFirstFreeUser + static_cast<uid_t>(getpid()) % kFreeUsers;
    ChildProcess owner([limit, user](Channel &parent) {
        if (setuid(user) != 0)
            return 1;
        for (std::size_t count = 0; count < limit * 95 / 100; ++count)
            (void)inotify_init1(IN_CLOEXEC);
        (void)parent.tell("has them");
        (void)parent.hear(std::chrono::minutes(10));
        return 0;
    });
    ASSERT_EQ(owner.hear(), "has them");

    const std::string out = kp({"doctor"}).out;

    EXPECT_THAT(out, HasSubstr("warning: " + std::to_string(user) + ": has " +
                               std::to_string(limit * 95 / 100) + " of " + std::to_string(limit) +
                               " inotify instances; every endpoint takes one  [sysctl "
                               "fs.inotify.max_user_instances=" +
                               std::to_string(limit * 2) + "]\n"));
    (void)owner.tell("end");
}

TEST(KpDoctor, FindsDeadEndpointsAndUnsafeDirectories)
{
    UnixSocket::leave_dead_file("/run/providers/gone");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    ASSERT_EQ(chmod("/run/providers", 0777), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 01777), 0);

    EXPECT_EQ(findings_of(kp({"doctor", "-j"}), "\\(.check)"),
              "warning store-sticky\nwarning providers-mode\nwarning peer-dead\n");
}

TEST(KpDoctor, NamesAProcessThatMapsARemovedTopic)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    SegmentFile("a").remove();

    EXPECT_THAT(kp({"doctor"}).out, HasSubstr("error: " + shown(getpid())));
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
}

TEST(KpDoctor, FindsAConsumerThatSpellsItsTopicAnotherWay)
{
    ChildProcess application(run_application); // provides plant/speed
    ASSERT_EQ(application.hear(), "running");
    kp_t *handle = kp_new("follower", ignore_notice);
    ASSERT_NE(kp_tag_consumer_new(handle, "plant/speed"), nullptr);
    EXPECT_THAT(kp({"doctor"}).out, Not(HasSubstr("never hears")));
    ASSERT_NE(kp_tag_consumer_new(handle, "plant//speed"), nullptr);

    const std::string out = kp({"doctor"}).out;

    EXPECT_THAT(out, ContainsRegex("warning: plant//speed: " + shown(getpid()) +
                                   " .* follows it under this name and never hears of a change: "
                                   "its provider " +
                                   shown(application.pid()) + " .* calls it plant/speed\n"));
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
    (void)application.tell("end");
}
