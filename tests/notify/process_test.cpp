// An endpoint and the process around it: signals, executed programs, descriptor 0, other processes
// that are stopped or killed.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/child.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;

namespace {

class EndpointInProcess : public NotifyTest {};

// Counts the threads of this process that would take a signal sent to the process.
int threads_open_to(int signal)
{
    int count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("SigBlk:"))
                count += (std::stoull(line.substr(7), nullptr, 16) >> (signal - 1) & 1) == 0;
    }
    return count;
}

// The endpoint of another process. It counts the messages that it gets, and answers each line that
// it hears with their number once there are as many as the line says.
int count_messages(Channel &parent, const char *name)
{
    Endpoint endpoint(name);
    parent.tell("open");
    while (const auto line = parent.hear(std::chrono::minutes(1))) {
        (void)endpoint.inbox().has_received(std::stoul(*line));
        parent.tell(std::to_string(endpoint.inbox().count()));
    }
    return 0;
}

class OtherProcess : public NotifyTest {
  protected:
    OtherProcess() : child_([](Channel &parent) { return count_messages(parent, "other"); })
    {
        EXPECT_EQ(child_.hear(), "open");
    }

    // Stops all threads of the other process.
    void stop() const
    {
        child_.signal(SIGSTOP);
        int status = 0;
        EXPECT_EQ(waitpid(child_.pid(), &status, WUNTRACED), child_.pid());
        EXPECT_TRUE(WIFSTOPPED(status));
    }

    ChildProcess child_;
};

TEST_F(EndpointInProcess, LeavesSignalsToTheThreadsOfTheApplication)
{
    const int before = threads_open_to(SIGUSR1);

    const Endpoint endpoint;

    EXPECT_EQ(threads_open_to(SIGUSR1), before);
    EXPECT_EQ(threads_open_to(SIGTERM), before);
    EXPECT_EQ(threads_open_to(SIGALRM), before);
}

TEST_F(EndpointInProcess, LeavesTheSignalMaskOfItsCallerAsItWas)
{
    sigset_t mask;

    const Endpoint endpoint;

    EXPECT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 0);
}

TEST_F(EndpointInProcess, PassesNoDescriptorToAnExecutedProgram)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    const Endpoint endpoint;
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));

    ChildProcess program(
        {"/bin/sh", "-c", "ls -l /proc/self/fd | grep -c -e socket: -e anon_inode:"});

    EXPECT_EQ(program.hear(), "0");
}

TEST(EndpointWithoutStandardInput, ReleasesEverythingAndTouchesNothingElse)
{
    ChildProcess child([](Channel &) {
        (void)close(STDIN_FILENO);
        const auto before = open_descriptors();
        std::size_t received = 0;
        {
            const UnixSocket peer = UnixSocket::listening("/run/providers/peer"); // takes 0
            Endpoint endpoint;
            (void)peer.accept().send(write_notice({1}));
            (void)endpoint.inbox().has_received(1);
            received = endpoint.inbox().count();
        }
        (void)unlink("/run/providers/peer");
        {
            Endpoint endpoint; // takes 0 itself
            const bool pipes = endpoint->cancel_fds[0] > 0 && endpoint->new_server_fds[0] > 0;
            received += pipes && UnixSocket::connected("/run/providers/endpoint").is_open();
        }
        return received == 2 && open_descriptors() == before ? 0 : 1;
    });

    EXPECT_EQ(child.wait(), 0);
}

// How many descriptors an endpoint and its connections keep below 3, in a process without any of
// the standard streams.
int low_descriptors()
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer"); // takes 0
    const Endpoint endpoint;
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint"); // takes 1
    (void)endpoint.has_clients(1);
    (void)endpoint.has_servers(1);
    int count = 0;
    for (const auto &[fd, target] : open_descriptors())
        count += fd <= STDERR_FILENO && fd != listening.fd() && fd != peer.fd();
    return endpoint.client_count() + endpoint.server_count() == 2 ? count : -1;
}

TEST(EndpointWithoutStandardStreams, KeepsEveryDescriptorAboveTheirNumbers)
{
    ChildProcess child([](Channel &) {
        (void)close(STDIN_FILENO);
        (void)close(STDOUT_FILENO);
        (void)close(STDERR_FILENO);
        return low_descriptors();
    });

    EXPECT_EQ(child.wait(), 0);
}

TEST(EndpointWithoutStandardStreams, LogsWithoutWakingItself)
{
    ChildProcess child([](Channel &) {
        (void)close(STDOUT_FILENO);
        (void)close(STDERR_FILENO);
        const Endpoint endpoint;
        const CountCalls waits(Call::epoll_wait);
        for (int line = 0; line < 2000; ++line) // more than a pipe holds
            (void)kp_destroy(nullptr);
        return waits.count() < 10 ? 0 : 1;
    });

    EXPECT_EQ(child.wait(), 0);
}

TEST_F(OtherProcess, GetsTheMessages)
{
    const Endpoint endpoint;
    ASSERT_TRUE(endpoint.has_clients(1));

    endpoint.send(write_notice({1}));

    EXPECT_TRUE(child_.tell("1"));
    EXPECT_EQ(child_.hear(), "1");
}

TEST_F(OtherProcess, GetsEverythingAfterItWasStopped)
{
    const Endpoint endpoint;
    ASSERT_TRUE(endpoint.has_clients(1));
    constexpr int kTooMany = 2000; // more than the buffers hold
    std::atomic<int> sent = 0;

    stop();
    std::thread sending([&] {
        while (sent < kTooMany) {
            endpoint.send(write_notice({1}));
            ++sent;
        }
    });
    EXPECT_TRUE(wait_until([&] { return sent > 100; }));
    EXPECT_LT(sent, kTooMany);
    child_.signal(SIGCONT);
    sending.join();

    EXPECT_TRUE(child_.tell(std::to_string(kTooMany)));
    EXPECT_EQ(child_.hear(), std::to_string(kTooMany));
}

TEST_F(OtherProcess, IsDroppedWhenItIsKilledDuringASend)
{
    const Endpoint endpoint;
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;
    std::atomic<int> sent = 0;

    stop();
    std::thread sending([&] {
        while (sent < 2000) {
            endpoint.send(write_notice({1}));
            ++sent;
        }
    });
    EXPECT_TRUE(wait_until([&] { return sent > 100; }));
    child_.signal(SIGKILL);
    sending.join();

    EXPECT_TRUE(endpoint.has_clients(0));
    EXPECT_TRUE(endpoint.has_servers(0));
}

TEST_F(OtherProcess, CannotHoldUpAStartWhileItIsStoppedWithAFullBacklog)
{
    stop();
    std::vector<UnixSocket> waiting;
    for (int count = 0; count < 33; ++count) // all that a backlog of 32 takes
        waiting.push_back(UnixSocket::connected("/run/providers/other"));
    StderrCapture log;

    const Endpoint endpoint;

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/other timed out"});
    EXPECT_TRUE(file_exists("/run/providers/other"));
    child_.signal(SIGCONT);
}

} // namespace
