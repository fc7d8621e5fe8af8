#include "kp_run.h"

#include "testing/child.h"
#include "testing/mounts.h"
#include "testing/process.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace kptest;
namespace fs = std::filesystem;

namespace {

// The scripts leave what they have to tell in /run/scripts, which both the sandbox and the test
// see.
Ran sandboxed(const std::string &script, const RunOptions &options = {})
{
    fs::create_directory("/run/scripts");
    return kp({"sandbox", "--", "sh", "-c", script}, options);
}

std::string write_and_list(uid_t user = 0)
{
    const std::string program = "'" + program_for(user) + "'";
    return program + " set a/b 1.5 --type double >/dev/null && " + program + " list";
}

// Gives the number that a script has left in a file; 0 as long as there is none.
pid_t number_in(const std::string &path)
{
    pid_t number = 0;
    std::ifstream(path) >> number;
    return number;
}

} // namespace

TEST(KpSandbox, GivesACommandAnEmptyStoreOfItsOwn)
{
    put_double("outside", 1);
    fs::create_directory("/run/providers");
    fs::create_directory("/run/scripts");
    const std::string before = store_picture();

    const Ran ran = sandboxed(write_and_list());

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.out, "a/b\n");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(store_picture(), before);
}

TEST(KpSandbox, WorksWhereTheMachineHasNoStore)
{
    const Ran ran = sandboxed(write_and_list());

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.out, "a/b\n");
    EXPECT_FALSE(fs::exists("/dev/shm/zu-kp"));
    EXPECT_FALSE(fs::exists("/run/providers"));
}

TEST(KpSandbox, LeavesWhatLiesBesideTheTwoDirectories)
{
    std::ofstream("/run/beside") << "text";
    fs::create_directories("/run/folder/deep");
    fs::create_symlink("folder", "/run/link");

    const Ran ran = sandboxed("cat /run/beside; ls /run; readlink /run/link; ls /run/folder; "
                              "echo new >/run/beside");

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.out, "textbeside\nfolder\nlink\nproviders\nscripts\nfolder\ndeep\n");
    std::string text;
    std::ifstream("/run/beside") >> text;
    EXPECT_EQ(text, "new");
}

TEST(KpSandbox, DoesNotFollowALinkInPlaceOfTheStore)
{
    fs::create_directory("/run/victim");
    std::ofstream("/run/victim/file") << "text";
    fs::create_symlink("/run/victim", "/dev/shm/zu-kp");

    const Ran ran = sandboxed("ls /run/victim; " + write_and_list());

    EXPECT_EQ(ran.out, "file\na/b\n");
    EXPECT_EQ(fs::exists("/run/victim/a"), false);
}

TEST(KpSandbox, LeadsTheCommandOutOfTheMachinesStoreInWhichItWasStarted)
{
    put_double("outside", 1);
    fs::create_directory("/dev/shm/zu-kp/deep");
    fs::create_directory("/run/providers");
    const std::string before = store_picture();
    const std::string kp_in = "'" KP_PROGRAM "' sandbox -- sh -c ";

    const Ran store = run_program({"sh", "-c", "cd /dev/shm/zu-kp; " + kp_in + "'pwd; ls; >made'"});
    const Ran sockets = run_program({"sh", "-c", "cd /run/providers; " + kp_in + "'>made'"});
    const Ran deeper = run_program({"sh", "-c", "cd /dev/shm/zu-kp/deep; " + kp_in + "'>made'"});

    EXPECT_EQ(store.out + store.err, "/dev/shm/zu-kp\n");
    EXPECT_EQ(sockets.code, 0);
    EXPECT_EQ(deeper.err, "kp: /dev/shm/zu-kp/deep: the working directory, in the sandbox: No such "
                          "file or directory\n");
    EXPECT_EQ(deeper.code, 125);
    EXPECT_EQ(store_picture(), before);
}

TEST(KpSandbox, KeepsACopyThatNobodyMayReadWhoMayNotReadTheOriginal)
{
    const Ran ran = kp({"sandbox", "--keep", "/run/copy", "--", "sh", "-c",
                        "umask 0; '" KP_PROGRAM "' set a/b/c 1 --type int8 --peer-wait 0; "
                        "cd /dev/shm/zu-kp; chmod 640 a/b/c; chmod 750 a/b; chmod 711 a"});

    const Ran modes = run_program({"sh", "-c", "cd /run/copy; stat -c '%a' a a/b a/b/c"});

    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_EQ(modes.out, "711\n750\n640\n");
    fs::remove_all("/run/copy");
}

TEST(KpSandbox, SaysByItsCodeThatTheSystemStartsNoProcess)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    const Ran ran =
        run_program({"bash", "-c", "ulimit -u 0; exec " + program_for(user) + " sandbox -- true"},
                    {.environment = {"ASAN_OPTIONS=detect_leaks=0"}, .uid = user});

    EXPECT_EQ(ran.code, 125) << ran.err;
}

TEST(KpSandbox, HandsOnNoDescriptorOfItsOwn)
{
    const std::string list = "ls -l /proc/self/fd | grep -v /proc/ | wc -l";

    const Ran outside = run_program({"sh", "-c", list});
    const Ran inside = kp({"sandbox", "--keep", "/run/copy", "--", "sh", "-c", list});

    EXPECT_EQ(inside.out, outside.out);
}

// Each of these processes ends as soon as another has taken its place. They share the lock of a
// file, which is free when none is left.
TEST(KpSandbox, CatchesWhatForksAgainAndAgain)
{
    const Ran ran = sandboxed("python3 -c '\n"
                              "import fcntl, os, signal\n"
                              "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                              "file = open(\"/run/scripts/lock\", \"w\")\n"
                              "fcntl.flock(file, fcntl.LOCK_EX)\n"
                              "if os.fork(): os._exit(0)\n"
                              "while True:\n"
                              "    if os.fork(): os._exit(0)\n"
                              "'");

    EXPECT_EQ(ran.err.find("cannot be killed"), std::string::npos) << ran.err;
    EXPECT_EQ(ran.code, 0);
    const int lock = open("/run/scripts/lock", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
    (void)close(lock);
}

TEST(KpSandbox, ServesAnOrdinaryUserWhoKeepsHisNumber)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test cannot become another user";

    const Ran ran = sandboxed("id -u; " + write_and_list(user), {.uid = user});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.out, std::to_string(user) + "\na/b\n");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpSandbox, SaysWhereTheSystemAllowsNone)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test cannot become another user";

    fs::create_directory("/run/scripts");
    // Only the last user namespace but one may set how many there may be below it.
    const Ran ran = run_program({"unshare", "--user", "--map-root-user", "sh", "-c",
                                 "echo 0 >/proc/sys/user/max_user_namespaces && "
                                 "echo 0 >/proc/sys/user/max_mnt_namespaces && exec '" KP_PROGRAM
                                 "' sandbox -- touch /run/scripts/was-run"});

    EXPECT_EQ(ran.err.substr(0, 55), "kp: the system allows no sandbox: unshare: No space lef");
    EXPECT_NE(ran.err.find("user.max_user_namespaces"), std::string::npos);
    EXPECT_EQ(ran.code, 125);
    EXPECT_FALSE(fs::exists("/run/scripts/was-run"));
}

TEST(KpSandbox, PassesTheExitStatusOn)
{
    EXPECT_EQ(sandboxed("exit 7").code, 7);
    EXPECT_EQ(sandboxed("kill -TERM $$").code, 128 + SIGTERM);
    EXPECT_EQ(sandboxed("kill -KILL $$").code, 128 + SIGKILL);
}

TEST(KpSandbox, TellsWhatCannotBeRun)
{
    const Ran missing = kp({"sandbox", "--", "/no/such/program"});
    const Ran directory = kp({"sandbox", "--", "/run"});
    const Ran nothing = kp({"sandbox"});

    EXPECT_EQ(missing.err, "kp: /no/such/program: No such file or directory\n");
    EXPECT_EQ(missing.code, 127);
    EXPECT_EQ(directory.err, "kp: /run: Permission denied\n");
    EXPECT_EQ(directory.code, 126);
    EXPECT_EQ(nothing.err, "kp: sandbox: no command to run; put it behind --\n");
    EXPECT_EQ(nothing.code, 2);
}

TEST(KpSandbox, HandsEveryWordToTheCommandAsItIs)
{
    const Ran ran = kp({"sandbox", "--", "printf", "<%s>", "[a,b]", "--", "-x", "get", "", "{}"});

    EXPECT_EQ(ran.out, "<[a,b]><--><-x><get><><{}>");
}

TEST(KpSandbox, LeavesTheEnvironmentToTheCommand)
{
    const Ran ran = sandboxed(
        "test \"$KP_SANDBOX\" = \"$(readlink /proc/self/ns/mnt)\" && echo $KP_XLOG_USER_LEVEL",
        {.environment = {"KP_XLOG_USER_LEVEL=DEBUG"}});

    EXPECT_EQ(ran.out, "DEBUG\n");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpSandbox, HandsSignalsOn)
{
    // Its parent's parent is the kp that was started, to which it sends the signal that then comes
    // back.
    const Ran ran = sandboxed("trap 'echo heard; exit 3' USR1; "
                              "kill -USR1 $(cut -d' ' -f4 /proc/$PPID/stat); "
                              "while :; do sleep 0.01; done");

    EXPECT_EQ(ran.out, "heard\n");
    EXPECT_EQ(ran.code, 3);
}

TEST(KpSandbox, EndsWhatTheCommandLeavesRunning)
{
    const Ran ran =
        sandboxed("sh -c 'echo $$ >/run/scripts/left; exec sleep 1000' >/dev/null 2>&1 & "
                  "while ! test -s /run/scripts/left; do sleep 0.01; done");

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    ASSERT_GT(number_in("/run/scripts/left"), 0);
    EXPECT_NE(::kill(number_in("/run/scripts/left"), 0), 0);
}

TEST(KpSandbox, KillsWhatDoesNotHear)
{
    const Ran ran =
        sandboxed("sh -c 'trap \"\" TERM; echo $$ >/run/scripts/left; while :; do sleep 1; done' "
                  ">/dev/null 2>&1 & while ! test -s /run/scripts/left; do sleep 0.01; done");

    EXPECT_NE(ran.err.find("kp: killed what the command left behind: "), std::string::npos);
    ASSERT_GT(number_in("/run/scripts/left"), 0);
    EXPECT_NE(::kill(number_in("/run/scripts/left"), 0), 0);
}

// The command's parent keeps the command for `kp`; each of the two ends what runs when the other is
// gone.
class KpSandboxKilled : public testing::TestWithParam<const char *> {};

TEST_P(KpSandboxKilled, TakesAlongWhatRuns)
{
    const Ran ran = sandboxed("sh -c 'echo $$ >/run/scripts/left; exec sleep 1000' & "
                              "while ! test -s /run/scripts/left; do sleep 0.01; done; "
                              "echo $$ >/run/scripts/command; kill -KILL " +
                              std::string(GetParam()) + "; wait");

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 128 + SIGKILL);
    for (const char *file : {"/run/scripts/left", "/run/scripts/command"}) {
        const pid_t pid = number_in(file);
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(wait_until([pid] { return ::kill(pid, 0) != 0; })) << file;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, KpSandboxKilled,
                         testing::Values("$PPID", "$(cut -d' ' -f4 /proc/$PPID/stat)"));

// In each round the signal comes a little later: while the namespaces are made, before, between and
// behind the two forks, and when the command runs. What outlives its sandbox would become a child
// of this test.
class KpSandboxMoment : public testing::TestWithParam<int> {};

TEST_P(KpSandboxMoment, LeavesNothingWheneverASignalComes)
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    for (int round = 0; round < 60; ++round) {
        ChildProcess sandbox(
            std::vector<std::string>{KP_PROGRAM, "sandbox", "--", "sleep", "1000"});
        std::this_thread::sleep_for(std::chrono::microseconds(300) * round);
        sandbox.signal(GetParam());

        EXPECT_EQ(sandbox.wait(), 128 + GetParam()) << "round " << round;
        EXPECT_TRUE(wait_until([] { return waitpid(-1, nullptr, WNOHANG) < 0; }))
            << "round " << round;
    }
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, KpSandboxMoment, testing::Values(SIGTERM, SIGINT, SIGHUP, SIGKILL));

TEST(KpSandbox, KeepsACopyOfTheStore)
{
    const Ran ran = kp({"sandbox", "--keep", "/run/copy", "--", KP_PROGRAM, "set", "a/b", "1.5",
                        "--type", "double"});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(fs::file_size("/run/copy/a/b"), 4080U);
    fs::copy("/run/copy", "/dev/shm/zu-kp", fs::copy_options::recursive);
    EXPECT_EQ(kp({"get", "a/b"}).out, "1.5\n");
}

TEST(KpSandbox, KeepsNoLinkAndNothingThatIsNoSegment)
{
    const Ran ran = kp({"sandbox", "--keep", "/run/copy", "--", "sh", "-c",
                        "ln -s /etc/passwd /dev/shm/zu-kp/link; echo x >/dev/shm/zu-kp/short; "
                        "mkfifo /dev/shm/zu-kp/pipe"});

    EXPECT_TRUE(fs::is_empty("/run/copy"));
    EXPECT_NE(ran.err.find("link: not a segment (a symbolic link)"), std::string::npos);
    EXPECT_EQ(ran.code, 4);
}

TEST(KpSandbox, LeavesNoHalfSegmentInACopyThatDoesNotFit)
{
    const TinyTmpfs tiny("/run/tiny", 4);
    const Ran ran = kp({"sandbox", "--keep", "/run/tiny", "--", "sh", "-c",
                        "for name in 1 2 3 4 5 6 7 8; do '" KP_PROGRAM
                        "' set $name 1 --type int8 >/dev/null --peer-wait 0; done"});

    EXPECT_NE(ran.err.find("No space left on device"), std::string::npos) << ran.err;
    EXPECT_EQ(ran.code, 5);
    std::size_t files = 0;
    for (const auto &file : fs::directory_iterator("/run/tiny")) {
        EXPECT_EQ(file.file_size(), 4080U) << file.path();
        ++files;
    }
    EXPECT_GT(files, 0U);
}

TEST(KpSandbox, RefusesToKeepACopyNowhere)
{
    const Ran ran = kp({"sandbox", "--keep", "", "--", "true"});

    EXPECT_EQ(ran.err, "kp: sandbox: --keep needs the name of a directory\n");
    EXPECT_EQ(ran.code, 2);
}

TEST(KpSandbox, MixesACopyWithNothing)
{
    fs::create_directory("/run/copy");
    fs::create_directory("/run/scripts");
    std::ofstream("/run/copy/file") << "text";

    const Ran ran = kp({"sandbox", "--keep", "/run/copy", "--", "touch", "/run/scripts/was-run"});

    EXPECT_EQ(ran.err, "kp: /run/copy: not empty, and a copy is not mixed with what is there\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_FALSE(fs::exists("/run/scripts/was-run"));
}

TEST(KpSandbox, TakesTheNetworkAway)
{
    const Ran ran = kp({"sandbox", "--network-none", "--", "cat", "/proc/net/dev"});

    EXPECT_NE(ran.out.find("lo:"), std::string::npos);
    EXPECT_EQ(ran.out.find("eth"), std::string::npos);
    EXPECT_EQ(std::count(ran.out.begin(), ran.out.end(), ':'), 1);
}

TEST(KpSandbox, StandsInItself)
{
    const Ran ran = sandboxed("'" KP_PROGRAM "' set a 1 --type int8 >/dev/null; '" KP_PROGRAM
                              "' sandbox -- '" KP_PROGRAM "' list; '" KP_PROGRAM "' list");

    EXPECT_EQ(ran.out, "a\n");
    EXPECT_EQ(ran.err, "");
}
