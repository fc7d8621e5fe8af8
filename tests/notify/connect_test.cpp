// How an endpoint connects to a peer: its tries, the slot, the announcement, and files that do not
// answer.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;
using kp::connect_to;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class ConnectTo : public NotifyTest {
  protected:
    const UnixSocket peer_ = UnixSocket::listening("/run/providers/peer");
    BareEndpoint endpoint_;
};

TEST_F(ConnectTo, StoresTheConnectionInTheFirstFreeSlotAndAnnouncesIt)
{
    const UnixSocket other = BareEndpoint::connect(endpoint_->server_fds[0]);

    connect_to(*endpoint_, "peer");

    EXPECT_TRUE(peer_.accept().is_open());
    EXPECT_NE(endpoint_->server_fds[1], -1);
    EXPECT_EQ(endpoint_->server_fds[2], -1);
    EXPECT_EQ(endpoint_.announced(), 1);
    char byte = 'x';
    EXPECT_EQ(read(endpoint_->new_server_fds[0], &byte, 1), 1);
    EXPECT_EQ(byte, 0);
}

TEST_F(ConnectTo, MakesTheConnectionNonBlocking)
{
    connect_to(*endpoint_, "peer");

    EXPECT_EQ(fcntl(endpoint_->server_fds[0], F_GETFL) & ~O_ACCMODE, O_NONBLOCK);
}

TEST_F(ConnectTo, TakesTheLastSlot)
{
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 31,
              1'000'000); // no descriptor's number

    connect_to(*endpoint_, "peer");

    EXPECT_NE(endpoint_->server_fds[31], -1);
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 31, -1);
}

TEST_F(ConnectTo, GivesUpWithoutAFreeSlot)
{
    StderrCapture log;
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 32, 1'000'000);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: Cannot find free socket in server_fds poll"});
    EXPECT_TRUE(peer_.accept().is_closed_by_peer());
    EXPECT_EQ(endpoint_.announced(), 0);
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 32, -1);
}

TEST_F(ConnectTo, ReportsThatItHasNoSocket)
{
    StderrCapture log;
    FailNext socket(Call::socket, EMFILE);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: connect_to: opening socket: Too many open files\n\033[0m");
    EXPECT_EQ(endpoint_->server_fds[0], -1);
}

TEST_F(ConnectTo, GivesUpAConnectionThatWouldBlock)
{
    StderrCapture log;
    FailNext fcntl(Call::fcntl, EINVAL);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: NONBLOCK(): Invalid argument"});
    EXPECT_TRUE(peer_.accept().is_closed_by_peer());
    EXPECT_EQ(endpoint_->server_fds[0], -1);
    EXPECT_TRUE(file_exists("/run/providers/peer"));
}

TEST_F(ConnectTo, KeepsAConnectionThatItCannotAnnounce)
{
    StderrCapture log;
    FailNext write(Call::write, EPIPE);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.lines(), Lines{"WARN: connect_to: write new server fd failed"});
    EXPECT_NE(endpoint_->server_fds[0], -1);
}

TEST_F(ConnectTo, AnnouncesNothingWithoutAPipe)
{
    StderrCapture log;
    const kp::OwnFd write_end(endpoint_->new_server_fds[1]);
    endpoint_->new_server_fds[1] = -1;

    connect_to(*endpoint_, "peer");

    EXPECT_NE(endpoint_->server_fds[0], -1);
    EXPECT_EQ(endpoint_.announced(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ConnectTo, ReportsAPathThatIsTooLongAndUsesTheCutOne)
{
    const std::string name(93, 'n');
    const UnixSocket cut = UnixSocket::listening(socket_path(name.substr(1)));
    StderrCapture log;

    connect_to(*endpoint_, name.c_str());

    EXPECT_TRUE(cut.accept().is_open());
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: socket address name '" + name + "' is too long"});
}

TEST_F(ConnectTo, SucceedsAtTheThirdTryAfterTwoSeconds)
{
    StderrCapture log;
    FailNth first(Call::connect, 1);
    FailNth second(Call::connect, 2);
    const auto start = Clock::now();

    connect_to(*endpoint_, "peer");

    EXPECT_GE(Clock::now() - start, seconds(2));
    EXPECT_NE(endpoint_->server_fds[0], -1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ConnectTo, GivesAFileThatWasJustMadeAMomentToListen)
{
    const auto pauses_once = [this] {
        static int made = 0;
        const std::string name = "new-" + std::to_string(++made);
        const UnixSocket just_made = UnixSocket::listening("/run/providers/" + name);
        const CountCalls pauses(Call::usleep);
        connect_to(*endpoint_, name.c_str());
        return pauses.count() == 1;
    };

    EXPECT_TRUE(
        kptest::wait_until(pauses_once)); // not if something holds up this process meanwhile
}

TEST_F(ConnectTo, TriesAFileAtOnceThatIsOlder)
{
    struct stat file {};
    ASSERT_EQ(stat("/run/providers/peer", &file), 0);
    const uint64_t made_us = static_cast<uint64_t>(file.st_ctim.tv_sec) * 1'000'000;
    ASSERT_TRUE(kptest::wait_until([&] { return kp_get_timestamp_us() > made_us + 1'100'000; }));
    const CountCalls pauses(Call::usleep);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(pauses.count(), 0);
    EXPECT_NE(endpoint_->server_fds[0], -1);
}

TEST_F(ConnectTo, RemovesADeadSocketAfterThreeTriesOneSecondApart)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const CountCalls tries(Call::connect);
    const auto start = Clock::now();

    connect_to(*endpoint_, "dead");

    EXPECT_GE(Clock::now() - start, seconds(3)); // the third try is followed by a pause too
    EXPECT_EQ(tries.count(), 3);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: connect_to: connect to "
                                               "/run/providers/dead failed, remove it\n\033[0m");
    EXPECT_FALSE(file_exists("/run/providers/dead"));
    EXPECT_EQ(endpoint_->server_fds[0], -1);
}

TEST_F(ConnectTo, LeavesAPeerAloneThatIsAliveButTakesNoConnections)
{
    const UnixSocket busy = UnixSocket::listening("/run/providers/busy", 0);
    const std::vector<UnixSocket> waiting = fill_backlog("/run/providers/busy");
    StderrCapture log;

    connect_to(*endpoint_, "busy");

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/busy timed out"});
    EXPECT_TRUE(file_exists("/run/providers/busy"));
    EXPECT_EQ(endpoint_->server_fds[0], -1);
}

// Replaces the file "dead" by a peer that lives, once so many tries have failed.
std::thread come_back_after(const CountCalls &tries, long count, UnixSocket &peer)
{
    return std::thread([&tries, count, &peer] {
        EXPECT_TRUE(wait_until([&] { return tries.count() == count; }));
        std::this_thread::sleep_for(milliseconds(100)); // the try itself ends
        EXPECT_EQ(unlink("/run/providers/dead"), 0);
        peer = UnixSocket::listening("/run/providers/dead");
    });
}

TEST_F(ConnectTo, ConnectsToAPeerThatComesBackAfterTheLastTry)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const CountCalls tries(Call::connect);
    UnixSocket back;
    std::thread restart = come_back_after(tries, 3, back);

    connect_to(*endpoint_, "dead");
    restart.join();

    EXPECT_TRUE(file_exists("/run/providers/dead"));
    EXPECT_TRUE(back.accept().is_open());
    EXPECT_EQ(log.text(), "");
}

TEST_F(ConnectTo, GivesAFileThatCameMeanwhileAllItsTries)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const CountCalls tries(Call::connect);
    UnixSocket back;
    std::thread restart([&] {
        come_back_after(tries, 2, back).join();
        back.close(); // dies at once
    });

    connect_to(*endpoint_, "dead");
    restart.join();

    EXPECT_EQ(tries.count(), 5);
    EXPECT_FALSE(file_exists("/run/providers/dead"));
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/dead failed, remove it"});
}

TEST_F(ConnectTo, LooksOnceMoreDirectlyBeforeItRemoves)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    UnixSocket back;
    const Before looking(
        Call::lstat,
        [&] {
            EXPECT_EQ(unlink("/run/providers/dead"), 0);
            back = UnixSocket::listening("/run/providers/dead");
        },
        7); // two at each of the three tries, then this one

    connect_to(*endpoint_, "dead");

    EXPECT_TRUE(back.accept().is_open());
    EXPECT_EQ(log.text(), "");
}

TEST_F(ConnectTo, LeavesASocketThatItMayNotConnectTo)
{
    StderrCapture log;
    FailFrom connects(Call::connect, 1, EACCES);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: connect_to: connect to /run/providers/peer failed: "
              "Permission denied\n\033[0m");
    EXPECT_TRUE(file_exists("/run/providers/peer"));
    EXPECT_FALSE(peer_.is_readable(milliseconds(0)));
}

TEST_F(ConnectTo, RemovesWhatIsNoSocketWhateverTheError)
{
    make_file("/run/providers/file");
    StderrCapture log;
    FailFrom connects(Call::connect, 1, EACCES);

    connect_to(*endpoint_, "file");

    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/file failed, remove it"});
    EXPECT_FALSE(file_exists("/run/providers/file"));
}

TEST_F(ConnectTo, RemovesASocketOfAnotherType)
{
    StderrCapture log;
    FailFrom connects(Call::connect, 1, EPROTOTYPE);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/peer failed, remove it"});
    EXPECT_FALSE(file_exists("/run/providers/peer"));
}

TEST_F(ConnectTo, RemovesNothingThatItCannotLookAt)
{
    StderrCapture log;
    FailFrom looks(Call::lstat, 1, EIO);
    FailFrom connects(Call::connect, 1, ECONNREFUSED);

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/peer failed: "
                                 "Connection refused"});
    EXPECT_TRUE(file_exists("/run/providers/peer"));
}

TEST_F(ConnectTo, FollowsItsOwnLink)
{
    ASSERT_EQ(symlink("peer", "/run/providers/link"), 0);

    connect_to(*endpoint_, "link");

    EXPECT_TRUE(peer_.accept().is_open());
}

TEST_F(ConnectTo, FollowsNoLinkOfSomebodyElse)
{
    ASSERT_EQ(symlink("peer", "/run/providers/link"), 0);
    if (lchown("/run/providers/link", 1, 1) != 0)
        GTEST_SKIP() << "only root can lay a link for another user";
    StderrCapture log;

    connect_to(*endpoint_, "link");

    EXPECT_FALSE(peer_.is_readable(milliseconds(0)));
    EXPECT_FALSE(file_exists("/run/providers/link"));
    EXPECT_TRUE(file_exists("/run/providers/peer"));
}

TEST_F(ConnectTo, ConnectsOnceToOneEntry)
{
    connect_to(*endpoint_, "peer");

    connect_to(*endpoint_, "peer");

    EXPECT_EQ(endpoint_.announced(), 1);
    EXPECT_EQ(endpoint_->server_fds[1], -1);
}

TEST_F(ConnectTo, EndsItsPauseWhenTheEndpointCloses)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    CountCalls tries(Call::connect);
    Before closing(Call::poll, [this] { endpoint_.stop(); });
    const auto start = Clock::now();

    connect_to(*endpoint_, "dead");

    EXPECT_LT(Clock::now() - start, seconds(1)); // as long as a whole pause
    EXPECT_EQ(tries.count(), 1);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(file_exists("/run/providers/dead"));
}

TEST_F(ConnectTo, RemovesNothingWhenClosedDuringItsLastPause)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    CountCalls tries(Call::connect);
    Before closing(
        Call::poll, [this] { endpoint_.stop(); }, 3);

    connect_to(*endpoint_, "dead");

    EXPECT_EQ(tries.count(), 3);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(file_exists("/run/providers/dead"));
}

} // namespace
