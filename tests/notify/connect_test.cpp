// Connecting to a peer: the tries, the slot, the announcement, and files that do not answer.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
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

// Connections that wait at a listening socket until it takes no more.
std::vector<UnixSocket> fill_backlog(const std::string &path)
{
    std::vector<UnixSocket> waiting;
    bool room = true;
    while (room) {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        room = connect(waiting.back().fd(), reinterpret_cast<const sockaddr *>(&address),
                       sizeof(address)) == 0;
    }
    return waiting;
}

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
    const kp::UniqueFd write_end(endpoint_->new_server_fds[1]);
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

TEST_F(ConnectTo, EndsItsPauseWhenTheEndpointCloses)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    CountCalls tries(Call::connect);
    const auto start = Clock::now();

    std::thread connecting([this] { connect_to(*endpoint_, "dead"); });
    EXPECT_TRUE(wait_until([&] { return tries.count() == 1; }));
    endpoint_.stop();
    connecting.join();

    EXPECT_LT(Clock::now() - start, seconds(3));
    EXPECT_EQ(tries.count(), 1);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(file_exists("/run/providers/dead"));
}

} // namespace
