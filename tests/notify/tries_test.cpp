// The tries to connect to one name: how many, how far apart, and what interrupts them. The clock
// moves in the pauses alone, and only as far as the test says.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/pauses.h"

#include <cerrno>
#include <chrono>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;
using kp::connect_to;
using std::chrono::milliseconds;

namespace {

class Tries : public NotifyTest {
  protected:
    const StoppedClock clock_{CLOCK_MONOTONIC};
    const CountCalls connects_{Call::connect};
    BareEndpoint endpoint_;
};

TEST_F(Tries, AreAWholeSecondApartHoweverManySignalsCome)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const PassedPauses pauses(clock_, milliseconds(250));

    connect_to(*endpoint_, "dead");

    EXPECT_EQ(connects_.count(), 3);
    EXPECT_EQ(pauses.count(), 3 * 4);
    EXPECT_EQ(last_wait(Call::poll), 250); // what was left of the second
    EXPECT_FALSE(file_exists("/run/providers/dead"));
}

TEST_F(Tries, EndAfterTwelveOfAPeerThatIsMadeAnewEachTime)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const PassedPauses pauses(clock_, milliseconds(1000));
    const BeforeEach replaced(Call::poll, [] {
        EXPECT_EQ(unlink("/run/providers/dead"), 0);
        UnixSocket::leave_dead_file("/run/providers/dead");
    });

    connect_to(*endpoint_, "dead");

    EXPECT_EQ(connects_.count(), 12);
    EXPECT_TRUE(file_exists("/run/providers/dead"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tries, OfANameThatHasVanishedAreThreeToo)
{
    ASSERT_EQ(mkdir("/run/providers", 0755), 0);
    StderrCapture log;
    const PassedPauses pauses(clock_, milliseconds(1000));

    connect_to(*endpoint_, "gone");

    EXPECT_EQ(connects_.count(), 0);
    EXPECT_EQ(pauses.count(), 3);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/gone failed, remove it"});
}

TEST_F(Tries, AreNoneWhileTheEndpointCloses)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    endpoint_.stop();

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(connects_.count(), 0);
}

TEST_F(Tries, SucceedLaterWithAPeerWhoseConnectionWouldBlock)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    StderrCapture log;
    {
        const FailNext fcntl(Call::fcntl, EINVAL);
        connect_to(*endpoint_, "peer");
    }
    ASSERT_EQ(endpoint_->server_fds[0], -1);

    connect_to(*endpoint_, "peer");

    EXPECT_NE(endpoint_->server_fds[0], -1);
}

TEST_F(Tries, TakeNoLinkOfSomebodyElseForABusyPeer)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    ASSERT_EQ(symlink("peer", "/run/providers/link"), 0);
    if (lchown("/run/providers/link", 1, 1) != 0)
        GTEST_SKIP() << "only root can lay a link for another user";
    const kp::OwnFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    kp::Attempt attempt = kp::begin_attempt("link", kp::LogSite::current());
    errno = EAGAIN;

    EXPECT_EQ(kp::try_once(*endpoint_, kp::Connector::watch, attempt, fd), kp::Tried::failed);

    EXPECT_EQ(attempt.error, ELOOP);
}

// Gives how long a blocking send or connect on each of this process's sockets may last, by the
// socket, if there is a limit.
std::vector<milliseconds> send_timeouts()
{
    std::vector<milliseconds> timeouts;
    for (const auto &[fd, target] : open_descriptors()) {
        timeval limit{};
        socklen_t size = sizeof(limit);
        if (target.starts_with("socket:") &&
            getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size) == 0 &&
            (limit.tv_sec != 0 || limit.tv_usec != 0))
            timeouts.emplace_back(limit.tv_sec * 1000 + limit.tv_usec / 1000);
    }
    return timeouts;
}

TEST_F(Tries, WaitASecondForAPeerWithAFullBacklog)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    std::vector<milliseconds> timeouts;
    const Before connecting(Call::connect, [&] { timeouts = send_timeouts(); });

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(timeouts, std::vector{milliseconds(1000)});
}

// Says whether the scan pauses before its try when the wall clock shows so much after the change
// time of a new socket.
bool pauses_at(std::chrono::nanoseconds age)
{
    static int made = 0;
    const std::string name = "new" + std::to_string(++made);
    const UnixSocket peer = UnixSocket::listening(socket_path(name));
    struct stat file {};
    EXPECT_EQ(stat(socket_path(name).c_str(), &file), 0);
    const StoppedClock clock(CLOCK_REALTIME);
    clock.set(file.st_ctim);
    clock.advance(age);
    BareEndpoint endpoint;
    const CountCalls pauses(Call::usleep);
    connect_to(*endpoint, name.c_str());
    EXPECT_TRUE(pauses.count() == 0 || last_wait(Call::usleep) == 1000);
    return pauses.count() == 1;
}

TEST_F(Tries, GiveANewSocketAMillisecondBesideTheTickOfItsChangeTime)
{
    timespec tick{};
    ASSERT_EQ(clock_getres(CLOCK_REALTIME_COARSE, &tick), 0);
    const std::chrono::nanoseconds limit = std::chrono::nanoseconds(tick.tv_nsec) + milliseconds(1);

    EXPECT_TRUE(pauses_at(std::chrono::nanoseconds(0)));
    EXPECT_TRUE(pauses_at(limit - std::chrono::nanoseconds(1)));
    EXPECT_FALSE(pauses_at(limit));
    EXPECT_FALSE(pauses_at(std::chrono::nanoseconds(-1))); // the clock was set back
}

} // namespace
