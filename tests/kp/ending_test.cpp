// How commands end when their reader sleeps, and what their caller sees of a signal.
#include "kp_run.h"

#include "testing/process.h"
#include "testing/segment_file.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;

namespace {

constexpr int kTopics = 3000;
constexpr int kMuch = 30'000; // bytes, of the 64 KiB that fit into a pipe

void become_kp(std::vector<std::string> arguments, int pipe, int stream)
{
    std::vector<char *> words = {const_cast<char *>(KP_PROGRAM)};
    for (std::string &argument : arguments)
        words.push_back(argument.data());
    words.push_back(nullptr);
    (void)dup2(pipe, stream);
    (void)execv(KP_PROGRAM, words.data());
}

// `kp` with its standard output in a pipe, or in a socket, that is read only when a test says so.
class UnreadKp : public OwnProcess {
  public:
    enum class Through { pipe, nonblocking_pipe, socket };

    explicit UnreadKp(std::vector<std::string> arguments, Through through = Through::pipe)
    {
        std::array<int, 2> ends{};
        if (through == Through::socket)
            (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        else
            (void)pipe2(ends.data(), O_CLOEXEC);
        if (through == Through::nonblocking_pipe)
            (void)fcntl(ends[1], F_SETFL, O_NONBLOCK);
        read_end_ = ends[0];
        start([&] { become_kp(std::move(arguments), ends[1], STDOUT_FILENO); });
        (void)close(ends[1]);
    }
    ~UnreadKp()
    {
        (void)close(read_end_);
    }

    bool has_printed() const
    {
        return kptest::wait_until([this] { return waiting_bytes() > 0; });
    }
    // Says whether it sleeps with output that nobody takes.
    bool is_stuck() const
    {
        return kptest::wait_until([this] {
            std::string name;
            std::string state;
            std::ifstream file("/proc/" + std::to_string(pid()) + "/stat");
            file >> name >> name >> state;
            return waiting_bytes() > kMuch && state == "S";
        });
    }
    std::string read_all() const
    {
        std::string text;
        std::array<char, 1000> buffer; // less than a write brings
        for (ssize_t size = 1; size > 0;) {
            size = read(read_end_, buffer.data(), buffer.size());
            text.append(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        }
        return text;
    }

  private:
    int waiting_bytes() const
    {
        int waiting = 0;
        (void)ioctl(read_end_, FIONREAD, &waiting);
        return waiting;
    }
    int read_end_ = -1;
};

void put_many()
{
    for (int index = 0; index < kTopics; ++index)
        put_text("many/" + std::to_string(index), "a text of some length to fill a pipe");
}

long lines_of(const std::string &text)
{
    return std::count(text.begin(), text.end(), '\n');
}

// `kp` with its standard error in a pipe that is full and that nobody reads.
class UnheardKp : public OwnProcess {
  public:
    explicit UnheardKp(std::vector<std::string> arguments)
    {
        EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0);
        const std::vector<char> much(1 << 20);
        EXPECT_GT(write(ends_[1], much.data(), much.size()), 0);
        (void)fcntl(ends_[1], F_SETFL, 0);
        start([&] { become_kp(std::move(arguments), ends_[1], STDERR_FILENO); });
    }
    ~UnheardKp()
    {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }

  private:
    std::array<int, 2> ends_{};
};

class StuckWatch : public testing::TestWithParam<UnreadKp::Through> {};

} // namespace

TEST_P(StuckWatch, IsEndedByASignal)
{
    put_many();
    UnreadKp watch({"watch", "#", "-j"}, GetParam());
    ASSERT_TRUE(watch.is_stuck());

    watch.signal(SIGTERM);

    EXPECT_TRUE(watch.dies_of(SIGTERM));
}

TEST_P(StuckWatch, EndsWhenItsTimeIsOver)
{
    put_many();
    UnreadKp watch({"watch", "#", "-j", "-t", "0.5"}, GetParam());

    const auto status = watch.status();

    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 124);
}

TEST_P(StuckWatch, LosesNothingWhenItsReaderWakes)
{
    put_many();
    UnreadKp watch({"watch", "#", "-j", "--initial-only"}, GetParam());
    ASSERT_TRUE(watch.is_stuck());

    const std::string text = watch.read_all();

    EXPECT_EQ(lines_of(text), kTopics);
    EXPECT_EQ(watch.status(), 0);
}

INSTANTIATE_TEST_SUITE_P(ByOutput, StuckWatch,
                         testing::Values(UnreadKp::Through::pipe,
                                         UnreadKp::Through::nonblocking_pipe,
                                         UnreadKp::Through::socket));

class Unheard : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Unheard, EndsWhenItsTimeIsOver)
{
    SegmentFile("broken").create(100);
    put_double("sound", 1);
    UnheardKp command(GetParam());

    const auto status = command.status();

    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_NE(WEXITSTATUS(*status), 0);
}

INSTANTIATE_TEST_SUITE_P(Command, Unheard,
                         testing::Values(std::vector<std::string>{"watch", "#", "-t", "0.5"},
                                         std::vector<std::string>{"record", "#", "-t", "0.5"},
                                         std::vector<std::string>{"hz", "#", "-t", "0.5"},
                                         std::vector<std::string>{"wait", "broken", "changes", "-t",
                                                                  "0.5"}));

class Ended : public testing::TestWithParam<int> {};

TEST_P(Ended, BySignalSoThatItsCallerSeesTheSignal)
{
    put_double("a", 1);
    UnreadKp watch({"watch", "a"});
    ASSERT_TRUE(watch.has_printed());

    watch.signal(GetParam());

    EXPECT_TRUE(watch.dies_of(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(By, Ended, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGUSR1));

// Each restore is stopped at a time of its own. Most of it lies between making a file and ending
// its write.
TEST(Ended, InARestoreLeavesNoTopicHalfMade)
{
    {
        std::ofstream lines("/run/many.jsonl");
        for (int index = 0; index < 50'000; ++index)
            lines << R"({"topic":"k/)" << index << R"(","type":"double","value":1})" << '\n';
    }
    std::string broken;
    long without_value = 0;

    for (int round = 0; round < 40; ++round) {
        std::filesystem::remove_all("/dev/shm/zu-kp");
        UnreadKp restore({"restore", "/run/many.jsonl"});
        const std::string last = "/dev/shm/zu-kp/k/" + std::to_string(10 + round * 7);
        ASSERT_TRUE(kptest::wait_until([&last] { return std::filesystem::exists(last); }));
        restore.signal(SIGTERM);
        ASSERT_TRUE(restore.dies_of(SIGTERM));
        const Ran get = kp({"get", "#"});
        broken += get.err;
        without_value += lines_of(kp({"list"}).out) - lines_of(get.out);
    }

    EXPECT_EQ(broken, "");
    EXPECT_EQ(without_value, 0);
}

// If a program handles SIGINT and then ends by itself, bash goes on with its loop.
TEST(Ended, ByInterruptEndsTheShellsLoopToo)
{
    put_double("a", 1);

    const Ran ran = run_program({"bash", "-c",
                                 "set -m; (trap - INT; while :; do '" KP_PROGRAM
                                 "' watch a --no-initial; echo again; done) & "
                                 "sleep 0.5; kill -INT -- -$!; wait $!; echo code $?"});

    EXPECT_EQ(ran.out, "code 130\n");
}
