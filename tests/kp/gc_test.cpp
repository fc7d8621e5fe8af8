// gc, rm and set while others change the store and the endpoints in the same moment.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/file_text.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace kptest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

constexpr const char *kStore = "/dev/shm/zu-kp/";
constexpr const char *kSockets = "/run/providers/";

// A directory outside the store with files that look like topics nobody has open, and a link to it
// that takes the place of the store's directory `d` again and again.
class SwappedDirectory {
  public:
    SwappedDirectory()
    {
        fs::create_directories("/run/victim");
        for (const std::string &name : names())
            put_double("d/" + name, 1);
        for (int index = 0; index < kCounted; ++index)
            SegmentFile("d/counted-" + std::to_string(index)).put_u8(at::provider_refs, 1);
        for (const std::string &name : names())
            fs::copy_file(kStore + ("d/" + name), "/run/victim/" + name);
        fs::create_symlink("/run/victim", std::string(kStore) + "link");
        picture_ = picture();
        swapper_ = std::thread([this] {
            while (!stop_)
                (void)renameat2(AT_FDCWD, "/dev/shm/zu-kp/d", AT_FDCWD, "/dev/shm/zu-kp/link",
                                RENAME_EXCHANGE);
        });
    }
    SwappedDirectory(const SwappedDirectory &) = delete;
    SwappedDirectory &operator=(const SwappedDirectory &) = delete;
    ~SwappedDirectory()
    {
        stop_ = true;
        swapper_.join();
        fs::remove_all("/run/victim");
    }
    bool is_victim_untouched() const
    {
        return picture() == picture_;
    }

  private:
    // Many with dead counts, so that some are acted on while the link stands in the directory's
    // place.
    static constexpr int kCounted = 30;
    static std::vector<std::string> names()
    {
        std::vector<std::string> all = {"orphan", "set", "restored"};
        for (int index = 0; index < kCounted; ++index)
            all.push_back("counted-" + std::to_string(index));
        return all;
    }

    static std::string picture()
    {
        std::string all;
        for (const std::string &name : names())
            all += name + file_text("/run/victim/" + name);
        return all + std::to_string(std::distance(fs::directory_iterator("/run/victim"),
                                                  fs::directory_iterator()));
    }

    std::string picture_;
    std::atomic<bool> stop_ = false;
    std::thread swapper_;
};

int bound_socket(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    (void)unlink(path.c_str());
    (void)bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    return fd;
}

void make_old(const std::string &path)
{
    const std::array<timespec, 2> old = {{{1, 0}, {1, 0}}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old.data(), AT_SYMLINK_NOFOLLOW), 0);
}

void leave_old_dead_socket(const std::string &path)
{
    UnixSocket::leave_dead_file(path);
    make_old(path);
}

// So many lines of gc do not fit into a pipe.
constexpr int kMoreThanFits = 1500;

// A `kp` whose output nobody reads until the test does.
class UnreadRun {
  public:
    explicit UnreadRun(const std::vector<std::string> &arguments)
    {
        std::vector<std::string> words = {KP_PROGRAM};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> pointers;
        for (std::string &word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        (void)fcntl(ends[1], F_SETPIPE_SZ, 4096); // is full soon
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            (void)dup2(ends[1], STDOUT_FILENO);
            (void)execv(pointers[0], pointers.data());
            _exit(127);
        }
        (void)close(ends[1]);
        read_end_ = ends[0];
    }
    UnreadRun(const UnreadRun &) = delete;
    UnreadRun &operator=(const UnreadRun &) = delete;
    ~UnreadRun()
    {
        (void)close(read_end_); // ends `kp` if it still prints
        (void)waitpid(pid_, nullptr, 0);
    }

    std::string read_to_the_end() const
    {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t size = 1; size > 0; text.append(buffer.data(), static_cast<std::size_t>(size)))
            size = std::max<ssize_t>(read(read_end_, buffer.data(), buffer.size()), 0);
        return text;
    }

  private:
    pid_t pid_ = -1;
    int read_end_ = -1;
};

// Says whether the file under a name is the one on which a socket or a mapping was made.
bool is_reached(const std::string &path)
{
    return UnixSocket::connected(path).is_open();
}

ino_t inode_of(const std::string &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// Topics in which nobody is counted, and whose files this process keeps locked.
class LockedTopics {
  public:
    LockedTopics(const std::string &directory, int count)
    {
        std::vector<std::string> set = {"set", "--type", "int8", "--peer-wait", "0"};
        for (int index = 0; index < count; ++index)
            set.push_back(directory + "/" + std::to_string(index) + "=1");
        EXPECT_EQ(kp(set).code, 0);
        for (int index = 0; index < count; ++index) {
            const std::string path = "/dev/shm/zu-kp/" + directory + "/" + std::to_string(index);
            files_.push_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(flock(files_.back(), LOCK_EX | LOCK_NB), 0);
        }
    }
    LockedTopics(const LockedTopics &) = delete;
    LockedTopics &operator=(const LockedTopics &) = delete;
    ~LockedTopics()
    {
        for (const int file : files_)
            (void)close(file);
    }

  private:
    std::vector<int> files_;
};

} // namespace

TEST(KpHostileStore, LeadsNoCommandOutOfTheStore)
{
    const SwappedDirectory directory;

    for (int round = 0; round < 20; ++round) {
        (void)kp({"gc", "--trust-visible", "--orphans", "--older-than", "0"});
        (void)kp({"rm", "-f", "d/orphan", "d/counted-1"});
        (void)kp({"set", "d/set", "2", "--peer-wait", "0"});
        (void)kp({"set", "d/new", "2", "--type", "double", "--peer-wait", "0"});
        (void)kp({"restore", "--force", "--peer-wait", "0"},
                 {.input = R"({"topic":"d/restored","type":"uint64","value":3,"max":8})"});
        ASSERT_TRUE(directory.is_victim_untouched()) << "round " << round;
    }
}

TEST(KpHostileStore, HasNoDepthInWhichAWalkIsLost)
{
    constexpr int levels = 20'000;
    put_double("beside", 1);
    ChildProcess digger([](Channel &parent) {
        if (chdir("/dev/shm/zu-kp") != 0)
            return 1;
        for (int level = 0; level < levels; ++level)
            if (mkdir("a", 0777) != 0 || chdir("a") != 0)
                return 1;
        (void)parent.tell("deep");
        (void)parent.hear(std::chrono::minutes(10));
        for (int level = 0; level < levels; ++level)
            if (chdir("..") != 0 || rmdir("a") != 0)
                return 1;
        return 0;
    });
    ASSERT_EQ(digger.hear(), "deep");

    EXPECT_EQ(kp({"list"}).out, "beside\n");
    EXPECT_EQ(kp({"get", "#"}).out, "beside\t1\n");
    EXPECT_EQ(kp({"gc", "-n"}).code, 0);
    EXPECT_EQ(kp({"gc", "--orphans", "--older-than", "1e9", "-n"}).code, 0);
    const Ran watch = kp({"watch", "#", "-n", "2", "-t", "1"});
    EXPECT_EQ(watch.out, "beside\t1\n");
    EXPECT_EQ(watch.code, 124);
    const Ran record = kp({"record", "#", "-t", "1"});
    EXPECT_EQ(std::ranges::count(record.out, '\n'), 1);
    EXPECT_EQ(record.code, 0) << record.err;

    (void)digger.tell("up");
    EXPECT_EQ(digger.wait(), 0);
}

TEST(KpHostileStore, IsNotEnteredThroughALinkOfAnotherUser)
{
    if (other_user() == 0)
        GTEST_SKIP() << "this test needs a second user";
    fs::remove_all("/dev/shm/zu-kp");
    fs::create_directories("/run/victim");
    ASSERT_EQ(symlink("/run/victim", "/dev/shm/zu-kp"), 0);
    ASSERT_EQ(lchown("/dev/shm/zu-kp", other_user(), other_user()), 0);

    const Ran of_other = kp({"set", "a", "1", "--type", "int8", "--peer-wait", "0"});
    ASSERT_EQ(lchown("/dev/shm/zu-kp", 0, 0), 0);
    const Ran of_root = kp({"set", "a", "1", "--type", "int8", "--peer-wait", "0"});

    EXPECT_EQ(of_other.code, 4);
    EXPECT_EQ(of_root.code, 0);
    EXPECT_TRUE(exists("/run/victim/a"));
    fs::remove("/dev/shm/zu-kp");
    fs::remove_all("/run/victim");
}

TEST(KpGcRace, LeavesASocketThatIsBoundAndDoesNotListenYet)
{
    fs::create_directories(kSockets);
    const std::string path = std::string(kSockets) + "starting";
    const int fd = bound_socket(path);
    make_old(path);

    const Ran ran = kp({"gc"});

    EXPECT_EQ(ran.out, "");
    EXPECT_TRUE(exists(path));
    (void)listen(fd, 1);
    EXPECT_TRUE(is_reached(path));
    (void)close(fd);
}

TEST(KpGcRace, ActsBeforeItPrintsHoweverSlowItsReaderIs)
{
    for (int index = 0; index < kMoreThanFits; ++index)
        leave_old_dead_socket(kSockets + std::to_string(index));
    UnreadRun gc({"gc"});

    EXPECT_TRUE(wait_until([] { return fs::is_empty(kSockets); }));
    const auto restarted = UnixSocket::listening(std::string(kSockets) + "7");
    const std::string text = gc.read_to_the_end();

    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kMoreThanFits);
    EXPECT_TRUE(is_reached(std::string(kSockets) + "7"));
}

// The same holds for topics, dead counts and orphans: each is opened anew while gc waits for its
// reader.
TEST(KpGcRace, LeavesTopicsThatOpenWhileItsOutputIsNotRead)
{
    for (int index = 0; index < kMoreThanFits; ++index) {
        const std::string topic = "t/" + std::to_string(index);
        put_double(topic, 1);
        SegmentFile(topic).put_u64(at::last_write_ts, 1);
        SegmentFile(topic).put_u8(at::provider_refs, index % 2 ? 1 : 0);
        make_old(kStore + topic);
    }
    UnreadRun gc({"gc", "--orphans", "--trust-visible"});

    EXPECT_TRUE(wait_until(
        [] { return !fs::exists("/dev/shm/zu-kp/t") || fs::is_empty("/dev/shm/zu-kp/t"); }));
    kp_shm_t *counted = kp_shm_new("t/7", KP_ROLE_PROVIDER);
    kp_shm_t *orphan = kp_shm_new("t/8", KP_ROLE_PROVIDER);
    const std::string text = gc.read_to_the_end();

    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kMoreThanFits);
    EXPECT_THAT(text, AllOf(HasSubstr("t/7: counts 1 providers and 0 consumers, 0 are open; "
                                      "removed\n"),
                            HasSubstr("t/8: an orphan")));
    EXPECT_EQ(SegmentFile("t/7").u8(at::provider_refs), 1);
    EXPECT_EQ(SegmentFile("t/8").u8(at::provider_refs), 1);
    (void)kp_shm_destroy(counted, "t/7", KP_ROLE_PROVIDER);
    (void)kp_shm_destroy(orphan, "t/8", KP_ROLE_PROVIDER);
}

TEST(KpGcRace, SaysWhatItCouldNotRemove)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    leave_old_dead_socket(std::string(kSockets) + "gone");
    ASSERT_EQ(chmod((std::string(kSockets) + "gone").c_str(), 0777), 0);
    ASSERT_EQ(chmod(kSockets, 01777), 0);

    const Ran ran = kp({"gc"}, {.uid = user});

    EXPECT_EQ(ran.out, "/run/providers/gone: a socket that refuses connections; not removed\n");
    EXPECT_EQ(ran.err, "kp: /run/providers/gone: Operation not permitted\n");
    EXPECT_EQ(ran.code, 3);
}

// In each round a hundred services start again under the names of their dead sockets, in no order
// and at no set time, while gc runs. If gc found none of them dead any more, they take longer next
// time.
TEST(KpGcRace, NeverTakesTheSocketOfAServiceThatStartsAgain)
{
    constexpr int services = 100;
    constexpr int rounds = 30;
    std::mt19937 random(20261122);
    std::vector<std::string> paths;
    for (int index = 0; index < services; ++index)
        paths.push_back(std::string(kSockets) + "service-" + std::to_string(index));
    int lost = 0;
    int removed = 0;
    unsigned longest_us = 1000;

    for (int round = 0; round < rounds; ++round) {
        const int removed_before = removed;
        std::vector<UnixSocket> sockets;
        for (const std::string &path : paths) {
            (void)unlink(path.c_str());
            leave_old_dead_socket(path);
        }
        ChildProcess gc({KP_PROGRAM, "gc", "-j"});
        std::shuffle(paths.begin(), paths.end(), random);
        for (const std::string &path : paths) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % longest_us));
            const int fd = bound_socket(path);
            (void)listen(fd, 1);
            sockets.emplace_back(fd);
        }
        while (gc.hear())
            ++removed;
        EXPECT_EQ(gc.wait(), 0);
        if (removed == removed_before)
            longest_us *= 2;
        lost += static_cast<int>(std::count_if(
            paths.begin(), paths.end(), [](const std::string &path) { return !is_reached(path); }));
    }

    EXPECT_EQ(lost, 0);
    EXPECT_GT(removed, 0);
}

// The same with topics whose providers were killed and are started again: a file that a provider
// has open stays linked.
TEST(KpGcRace, NeverTakesATopicThatAProviderHasJustOpened)
{
    constexpr int topics = 50;
    constexpr int rounds = 30;
    std::mt19937 random(20261122);
    int lost = 0;
    int seen = 0;
    unsigned longest_us = 1000;

    for (int round = 0; round < rounds; ++round) {
        const int seen_before = seen;
        std::vector<std::string> names;
        for (int index = 0; index < topics; ++index) {
            names.push_back("t/" + std::to_string(index));
            put_double(names.back(), 1);
            SegmentFile(names.back()).put_u64(at::last_write_ts, 1);
            SegmentFile(names.back()).put_u8(at::provider_refs, index % 2 ? 1 : 0);
            make_old(kStore + names.back());
        }
        std::shuffle(names.begin(), names.end(), random);
        ChildProcess gc({KP_PROGRAM, "gc", "-j", "--orphans", "--trust-visible"});
        std::vector<kp_shm_t *> open;
        std::vector<ino_t> linked;
        for (const std::string &name : names) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % longest_us));
            open.push_back(kp_shm_new(name.c_str(), KP_ROLE_PROVIDER));
            linked.push_back(inode_of(kStore + name));
        }
        while (gc.hear())
            ++seen;
        EXPECT_EQ(gc.wait(), 0);
        if (seen == seen_before)
            longest_us *= 2;
        for (std::size_t index = 0; index < names.size(); ++index) {
            lost += inode_of(kStore + names[index]) != linked[index];
            lost += SegmentFile(names[index]).u8(at::provider_refs) == 0;
            (void)kp_shm_destroy(open[index], names[index].c_str(), KP_ROLE_PROVIDER);
        }
        fs::remove_all("/dev/shm/zu-kp/t");
    }

    EXPECT_EQ(lost, 0);
    EXPECT_GT(seen, 0);
}

TEST(KpGc, LooksAtAllProcessesTwiceForAnyNumberOfTopics)
{
    for (int index = 0; index < 200; ++index) {
        put_double("t/" + std::to_string(index), 1);
        SegmentFile("t/" + std::to_string(index)).put_u8(at::provider_refs, 1);
    }
    const std::string trace = "/run/trace";

    (void)run_program(
        {"strace", "-f", "-o", trace, "-e", "trace=openat", KP_PROGRAM, "gc", "--trust-visible"});

    const Ran own = run_program({"grep", "-c", "/proc/1/maps", trace});
    EXPECT_LE(std::stoi(own.out), 2) << own.out;
    EXPECT_TRUE(fs::is_empty("/dev/shm/zu-kp/t"));
}

TEST(KpGc, WaitsOnceForAllFilesThatOthersHaveLocked)
{
    const LockedTopics locked("many", 20);
    EXPECT_EQ(kp({"set", "free", "1", "--type", "int8", "--peer-wait", "0"}).code, 0);
    const auto start = std::chrono::steady_clock::now();

    const Ran collected = kp({"gc", "--orphans", "--older-than", "0", "--trust-visible"});
    const Ran removed = kp({"rm", "many/+"});

    const std::string text = ": its file is locked by somebody, so it was left alone\n";
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)); // not 40
    EXPECT_EQ(collected.code, 5);
    EXPECT_EQ(std::ranges::count(collected.err, '\n'), 20);
    EXPECT_THAT(collected.err, testing::HasSubstr("kp: many/7" + text));
    EXPECT_FALSE(exists("/dev/shm/zu-kp/free"));
    EXPECT_EQ(removed.code, 5);
    EXPECT_THAT(removed.err, testing::HasSubstr("kp: many/7" + text));
    EXPECT_EQ(kp({"list", "many/+"}).out.size(),
              std::string("many/0\n").size() * 10 + std::string("many/10\n").size() * 10);
    EXPECT_EQ(kp({"rm", "--force", "many/+"}).code, 0);
}

TEST(KpRm, TakesPatternsAndShowsWhatItWouldRemove)
{
    put_double("a/x", 1);
    put_double("a/y", 1);
    put_double("b", 1);
    kp_shm_t *used = kp_shm_new("a/used", KP_ROLE_CONSUMER);

    const Ran dry = kp({"rm", "-n", "a/#"});
    const bool were_left = SegmentFile("a/x").exists() && SegmentFile("a/y").exists();
    const Ran real = kp({"rm", "a/#"});

    EXPECT_EQ(dry.out, "a/x: would be removed\na/y: would be removed\n");
    EXPECT_TRUE(were_left);
    EXPECT_THAT(real.err, HasSubstr("kp: a/used: in use by"));
    EXPECT_EQ(real.code, 5);
    EXPECT_FALSE(SegmentFile("a/x").exists() || SegmentFile("a/y").exists());
    EXPECT_TRUE(SegmentFile("a/used").exists() && SegmentFile("b").exists());
    EXPECT_EQ(kp({"rm", "none/#"}).err, "kp: \"none/#\": no topic matches\n");
    (void)kp_shm_destroy(used, "a/used", KP_ROLE_CONSUMER);
}

TEST(KpSet, SaysWhyATopicsDirectoryCannotBeMade)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("closed/a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/closed", 0755), 0);

    const Ran ran =
        kp({"set", "closed/deep/b", "1", "--type", "int8", "--peer-wait", "0"}, {.uid = user});

    EXPECT_EQ(ran.err, "kp: closed/deep/b: Permission denied\n");
    EXPECT_EQ(ran.code, 3);
}
