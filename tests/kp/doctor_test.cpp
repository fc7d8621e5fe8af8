// doctor: what it says of directories, rights, room and semaphores, and what it ends with.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/mounts.h"
#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace kptest;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr uid_t kSomebody = 54'322;

// Gives the level, check and subject of all findings but the notes.
std::string findings()
{
    return findings_of(kp({"doctor", "-j"}), "\\(.check) \\(.subject)");
}

void make_shared_directories()
{
    std::filesystem::create_directories("/run/providers");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    ASSERT_EQ(chmod("/run/providers", 03775), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02775), 0);
}

// Listens for a user as an endpoint does, with the mode that the umask gives.
struct User {
    uid_t uid;
    gid_t group;
    mode_t umask;
    gid_t second_group = 0; // 0: none
};
int run_endpoint(const User &user, const std::string &name, Channel &parent)
{
    (void)umask(user.umask);
    if (setgroups(user.second_group == 0 ? 0 : 1, &user.second_group) != 0 ||
        setgid(user.group) != 0 || setuid(user.uid) != 0)
        return 1;
    const auto socket = UnixSocket::listening("/run/providers/" + name);
    (void)parent.tell("listening");
    (void)parent.hear();
    return 0;
}

// Opens a topic and then takes its semaphore, as the library does for a moment.
int take_semaphore(Channel &parent)
{
    (void)kp_shm_new("a", KP_ROLE_PROVIDER);
    const int fd = open(segment_file_path("a").c_str(), O_RDWR | O_CLOEXEC);
    void *memory = mmap(nullptr, at::end, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED || sem_wait(static_cast<sem_t *>(memory)) != 0)
        return 1;
    (void)parent.tell("taken");
    (void)parent.hear();
    return 0;
}

// Puts the store on a file system of its own that has so many inodes.
class FewInodes {
  public:
    explicit FewInodes(const std::string &count)
    {
        EXPECT_EQ(mount("tmpfs", "/dev/shm/zu-kp", "tmpfs", 0, ("nr_inodes=" + count).c_str()), 0);
    }
    FewInodes(const FewInodes &) = delete;
    FewInodes &operator=(const FewInodes &) = delete;
    ~FewInodes()
    {
        (void)umount2("/dev/shm/zu-kp", MNT_DETACH);
    }
};

// Makes the directories as they should be before each test and, for the tests that come later,
// after it.
class KpDoctorLooks : public testing::Test {
  protected:
    KpDoctorLooks()
    {
        clean();
        make_shared_directories();
    }
    ~KpDoctorLooks() override
    {
        clean();
    }

  private:
    static void clean()
    {
        std::filesystem::remove_all("/run/providers");
        std::filesystem::remove_all("/dev/shm/zu-kp");
    }
};

} // namespace

TEST_F(KpDoctorLooks, FindsAStoreThatKeepsTheOthersOut)
{
    put_double("a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 0700), 0);

    const Ran ran = kp({"doctor"});

    EXPECT_THAT(ran.out, HasSubstr("warning: /dev/shm/zu-kp: mode 0700 keeps all users but root "
                                   "out  [chmod 2775 /dev/shm/zu-kp]\n"));
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDoctorLooks, FindsDirectoriesThatOnlyTheirOwnerCanList)
{
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 0711), 0);
    ASSERT_EQ(chmod("/run/providers", 01731), 0);

    const std::string out = kp({"doctor"}).out;

    EXPECT_THAT(out, HasSubstr("warning: /dev/shm/zu-kp: mode 0711 lets only root list it: others "
                               "find no topics  [chmod 2775 /dev/shm/zu-kp]\n"));
    EXPECT_THAT(out, HasSubstr("warning: /run/providers: mode 1731 lets only root list it: others "
                               "find no peers  [chmod 3770 /run/providers]\n"));
}

TEST_F(KpDoctorLooks, IsContentWithDirectoriesForTheMembersOfAGroup)
{
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02770), 0);
    ASSERT_EQ(chmod("/run/providers", 03770), 0);

    EXPECT_EQ(findings(), "");
}

TEST_F(KpDoctorLooks, FindsDirectoriesThatBelongToAUser)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    ASSERT_EQ(chown("/dev/shm/zu-kp", kSomebody, 0), 0);
    ASSERT_EQ(chown("/run/providers", kSomebody, 0), 0);

    EXPECT_EQ(findings(), "warning store-owner /dev/shm/zu-kp\n"
                          "warning providers-owner /run/providers\n");
}

TEST_F(KpDoctorLooks, FindsATreeOfTopicsThatItsOwnerKeepsToItself)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("open", 1);
    put_double("it's/a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/open", 0666), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/it's/a", 0666), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/it's", 0700), 0);
    EXPECT_THAT(kp({"doctor"}).out, Not(HasSubstr("let their owner in only")));
    ASSERT_EQ(chown("/dev/shm/zu-kp/it's", kSomebody, 0), 0);

    EXPECT_THAT(kp({"doctor"}).out,
                HasSubstr("warning: it's/: and 0 more let their owner in only, while several users "
                          "have topics  [chmod 2775 '/dev/shm/zu-kp/it'\\''s']\n"));
}

TEST_F(KpDoctorLooks, DoesNotCallAStoreHealthyThatItCannotRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02750), 0);
    ASSERT_EQ(chmod("/run/providers", 03750), 0);

    const Ran ran = kp({"doctor"}, {.uid = user});

    EXPECT_THAT(ran.out, HasSubstr("warning: /run/providers: cannot be read, so no endpoint was "
                                   "checked  [sudo kp doctor]\n"
                                   "warning: /dev/shm/zu-kp: cannot be read, so no topic was "
                                   "checked  [sudo kp doctor]\n"));
    EXPECT_THAT(ran.out, Not(HasSubstr("healthy")));
    EXPECT_EQ(ran.code, 3);
}

TEST_F(KpDoctorLooks, DoesNotCallEndpointsHealthyThatItCanOnlyList)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    const auto endpoint = UnixSocket::listening("/run/providers/somebody");
    ASSERT_EQ(chmod("/run/providers", 03774), 0);

    const Ran ran = kp({"doctor"}, {.uid = user});

    EXPECT_THAT(ran.out, HasSubstr("warning: /run/providers: cannot be read"));
    EXPECT_EQ(ran.code, 3);
}

TEST_F(KpDoctorLooks, SaysWhenNoneOfTheTopicsCanBeRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    put_double("b", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/a", 0660), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/b", 0660), 0);

    const Ran none = kp({"doctor"}, {.uid = user});
    ASSERT_EQ(chmod("/dev/shm/zu-kp/b", 0666), 0);
    const Ran one = kp({"doctor"}, {.uid = user});

    EXPECT_THAT(none.out, HasSubstr("warning: a: and 1 more cannot be read by this user, so no "
                                    "topic was checked  [sudo kp doctor]\n"));
    EXPECT_EQ(none.code, 3);
    EXPECT_THAT(one.out, HasSubstr("note: a: and 0 more cannot be read by this user  [sudo kp "
                                   "doctor]\n"));
}

TEST_F(KpDoctorLooks, EndsWithWhatItFoundRatherThanWithWhatItCouldNotSee)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02750), 0);
    UnixSocket::leave_dead_file("/run/providers/gone");

    EXPECT_EQ(kp({"doctor"}, {.uid = user}).code, 1);
}

TEST_F(KpDoctorLooks, FindsFilesInThePlaceOfTheDirectories)
{
    std::filesystem::remove_all("/run/providers");
    std::filesystem::remove_all("/dev/shm/zu-kp");
    std::ofstream("/run/providers") << "text";
    std::ofstream("/dev/shm/zu-kp") << "text";

    const Ran ran = kp({"doctor"});

    EXPECT_THAT(ran.out, HasSubstr("error: /dev/shm/zu-kp: is not a directory, so there can be no "
                                   "topics  [rm /dev/shm/zu-kp]\n"
                                   "error: /run/providers: is not a directory, so there can be no "
                                   "peers  [rm /run/providers]\n"));
    EXPECT_THAT(ran.out, Not(HasSubstr("healthy")));
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDoctorLooks, LeavesNoCommandSilentAboutAFileInThePlaceOfTheStore)
{
    std::filesystem::remove_all("/dev/shm/zu-kp");
    std::ofstream("/dev/shm/zu-kp") << "text";
    const std::string message = "kp: /dev/shm/zu-kp: not a directory, so there are no topics\n";

    const Ran list = kp({"list"});
    const Ran get = kp({"get", "a"});
    const Ran deep = kp({"get", "a/b"});
    const Ran set = kp({"set", "--type", "int8", "a", "1"});

    EXPECT_EQ(list.err, message);
    EXPECT_EQ(list.code, 4);
    EXPECT_EQ(get.err, message);
    EXPECT_EQ(get.code, 4);
    EXPECT_EQ(deep.err, message);
    EXPECT_EQ(set.err, message);
    EXPECT_EQ(set.code, 4);
}

TEST_F(KpDoctorLooks, LeavesPeersNotSilentAboutADirectoryThatItCannotRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    ASSERT_EQ(chmod("/run/providers", 03770), 0);

    const Ran closed = kp({"peers"}, {.uid = user});
    std::filesystem::remove_all("/run/providers");
    std::ofstream("/run/providers") << "text";
    const Ran file = kp({"peers"});

    EXPECT_EQ(closed.err, "kp: /run/providers: Permission denied\n");
    EXPECT_EQ(closed.code, 3);
    EXPECT_EQ(file.err, "kp: /run/providers: Not a directory\n");
    EXPECT_EQ(file.code, 4);
}

TEST_F(KpDoctorLooks, FindsSocketsToWhichOtherUsersCannotConnect)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    ASSERT_EQ(chmod("/run/providers", 03777), 0);
    ChildProcess one([](Channel &parent) {
        return run_endpoint({kSomebody, kSomebody, 0022}, "one", parent);
    });
    ChildProcess two([](Channel &parent) {
        return run_endpoint({kSomebody + 1, kSomebody, 0022}, "two", parent);
    });
    ASSERT_EQ(one.hear(), "listening");
    ASSERT_EQ(two.hear(), "listening");

    const Ran ran = kp({"doctor"});

    EXPECT_THAT(ran.out, HasSubstr("warning: one: mode 0755 of its socket keeps two (54323) and 0 "
                                   "more from connecting, so that they hear nothing of its changes"
                                   "  [systemctl edit UNIT (UMask=0002 and one Group= for all)]\n"
                                   "warning: two: mode 0755 of its socket keeps one (54322) and 0 "
                                   "more from connecting"));
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDoctorLooks, IsContentWithSocketsForTheMembersOfAGroup)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    ASSERT_EQ(chown("/run/providers", 0, kSomebody), 0);
    ASSERT_EQ(chmod("/run/providers", 03775), 0);
    ChildProcess one([](Channel &parent) {
        return run_endpoint({kSomebody, kSomebody, 0002}, "one", parent);
    });
    ChildProcess two([](Channel &parent) {
        return run_endpoint({kSomebody + 1, kSomebody + 1, 0002, kSomebody}, "two", parent);
    });
    ASSERT_EQ(one.hear(), "listening");
    ASSERT_EQ(two.hear(), "listening");

    EXPECT_EQ(findings(), "");
}

TEST_F(KpDoctorLooks, FindsAUserOutsideOfTheGroupThatMayConnect)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    ASSERT_EQ(chmod("/run/providers", 01777), 0);
    ChildProcess one([](Channel &parent) {
        return run_endpoint({kSomebody, kSomebody, 0002}, "one", parent);
    });
    ChildProcess two([](Channel &parent) {
        return run_endpoint({kSomebody + 1, kSomebody + 1, 0000}, "two", parent);
    });
    ASSERT_EQ(one.hear(), "listening");
    ASSERT_EQ(two.hear(), "listening");

    EXPECT_EQ(findings(), "warning peer-umask one\n");
}

TEST_F(KpDoctorLooks, FindsASemaphoreWhoseHolderWasKilled)
{
    {
        ChildProcess killed(take_semaphore);
        ASSERT_EQ(killed.hear(), "taken");
        killed.signal(SIGKILL);
        ASSERT_EQ(killed.wait(), 128 + SIGKILL);
    }

    const Ran doctor = kp({"doctor"});
    const Ran info = kp({"info", "a"});
    const std::string json =
        filtered(kp({"info", "a", "-j"}).out, {"jq", "-c", "[.semaphore, .semaphore_stuck]"});

    EXPECT_THAT(doctor.out, HasSubstr("warning: a: its semaphore stays taken: who holds it was "
                                      "killed or is stopped, and each close of the topic waits a "
                                      "second, until some process opens it anew  [kp info 'a']\n"));
    EXPECT_THAT(info.out, HasSubstr("\nsemaphore   0  (taken, and who holds it was killed or is "
                                    "stopped)\n"));
    EXPECT_EQ(json, "[0,true]\n");
    EXPECT_EQ(SegmentFile("a").u32(at::sem), 0U);
}

TEST_F(KpDoctorLooks, SaysNothingOfASemaphoreThatIsTakenForAMoment)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);
    SegmentFile("a").put_u32(at::sem, 0);
    // The looks take at least 40 ms, so that the last ones come after this.
    std::thread holder([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        SegmentFile("a").put_u32(at::sem, 1);
    });

    const std::string out = kp({"doctor"}).out;
    holder.join();

    EXPECT_THAT(out, Not(HasSubstr("semaphore")));
    EXPECT_THAT(kp({"info", "a"}).out, HasSubstr("\nsemaphore   1  (free)\n"));
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
}

TEST_F(KpDoctorLooks, FindsAFullFileSystemOfAFewPages)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02775), 0);
    EXPECT_EQ(findings(), "");
    store.fill();

    const Ran doctor = kp({"doctor"});
    const Ran set = kp({"set", "--type", "int8", "a", "1"});

    EXPECT_THAT(doctor.out,
                HasSubstr("error: /dev/shm/zu-kp: 0 of 4 pages (one for each topic) are free"));
    EXPECT_EQ(doctor.code, 1);
    EXPECT_EQ(set.err, "kp: a: no free pages in /dev/shm/zu-kp (see kp doctor)\n");
    EXPECT_EQ(set.code, 5);
}

TEST_F(KpDoctorLooks, TellsOfAStoreThatNobodyCanWrite)
{
    const FewInodes store("30");
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02775), 0);
    EXPECT_EQ(findings(), "");
    ASSERT_EQ(mount(nullptr, "/dev/shm/zu-kp", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0);

    const Ran doctor = kp({"doctor"});

    EXPECT_THAT(doctor.out, HasSubstr("error: /dev/shm/zu-kp: is mounted read-only: no topic"));
    EXPECT_THAT(doctor.out, HasSubstr("[mount -o remount,rw /dev/shm/zu-kp]\n"));
    EXPECT_EQ(doctor.code, 1);
}

TEST_F(KpDoctorLooks, WarnsOfCountsBeforeTheyAreFull)
{
    SegmentFile("a").create();
    SegmentFile("a").put_u8(at::consumer_refs, 199);
    EXPECT_THAT(findings(), Not(HasSubstr("counts-full")));

    SegmentFile("a").put_u8(at::consumer_refs, 200);

    EXPECT_THAT(findings(), HasSubstr("counts-full"));
    EXPECT_THAT(kp({"doctor"}).out, HasSubstr("a: 0 providers and 200 consumers have it open; a "
                                              "count that passes 255 begins at 0 again"));
}

TEST_F(KpDoctorLooks, FindsAFileSystemWithoutInodes)
{
    const FewInodes store("3"); // one is the directory's
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 02775), 0);
    SegmentFile("a").create();
    EXPECT_EQ(findings(), "");
    SegmentFile("b").create();

    const Ran doctor = kp({"doctor"});
    const Ran set = kp({"set", "--type", "int8", "c", "1"});
    const Ran deep = kp({"set", "--type", "int8", "d/e", "1"});

    EXPECT_THAT(doctor.out, HasSubstr("error: /dev/shm/zu-kp: 0 of 3 inodes are free  [mount -o "
                                      "remount,nr_inodes=6 /dev/shm/zu-kp]\n"));
    EXPECT_EQ(set.err, "kp: c: no free inodes in /dev/shm/zu-kp (see kp doctor)\n");
    EXPECT_EQ(set.code, 5);
    EXPECT_EQ(deep.err, "kp: d/e: no free inodes in /dev/shm/zu-kp (see kp doctor)\n");
    EXPECT_EQ(deep.code, 5);
}
