// Closing an endpoint in every state that it can be in.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <vector>

using namespace kptest;

namespace {

// The fixture checks after every test that nothing is left behind.
class NotifyClose : public NotifyTest {};

kp_notify_t *opened()
{
    kp_notify_t *endpoint = kp_notify_init("endpoint", 129, Inbox::receive, nullptr);
    EXPECT_NE(endpoint, nullptr);
    return endpoint;
}

// Says whether the send buffer of a socket is full.
bool is_full(int fd)
{
    pollfd room{fd, POLLOUT, 0};
    return poll(&room, 1, 0) == 0;
}

// Waits, on a thread of the endpoint, until a close has emptied slot 0 of both tables.
void wait_for_close()
{
    EXPECT_TRUE(wait_until([] { return !file_exists("/run/providers/endpoint"); }));
}

TEST_F(NotifyClose, DoesNothingForANullEndpoint)
{
    kp_notify_t *endpoint = nullptr;

    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

TEST_F(NotifyClose, RemovesTheSocketFileAndLeavesThePointer)
{
    kp_notify_t *endpoint = opened();
    const kp_notify_t *const before = endpoint;
    StderrCapture log;

    EXPECT_EQ(kp_notify_close(&endpoint), 0);

    EXPECT_EQ(endpoint, before);
    EXPECT_FALSE(file_exists("/run/providers/endpoint"));
    EXPECT_TRUE(file_exists("/run/providers"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(NotifyClose, EndsTheConnectionsInBothDirections)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    Endpoint endpoint;
    const UnixSocket from_endpoint = listening.accept();
    const UnixSocket to_endpoint = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));

    endpoint.close();

    EXPECT_TRUE(from_endpoint.is_closed_by_peer(std::chrono::milliseconds(0)));
    EXPECT_TRUE(to_endpoint.is_closed_by_peer(std::chrono::milliseconds(0)));
}

TEST_F(NotifyClose, EndsConnectionsThatStillWaitToBeAccepted)
{
    Endpoint endpoint;
    FailFrom accepts(Call::accept4, 1, EMFILE);
    const UnixSocket waiting = UnixSocket::connected("/run/providers/endpoint");
    EXPECT_TRUE(wait_until([&] { return accepts.count() > 0; }));

    endpoint.close();

    EXPECT_TRUE(waiting.is_closed_by_peer());
}

TEST_F(NotifyClose, ReportsAPathThatIsTooLongAndRemovesTheCutOne)
{
    StderrCapture log;
    Endpoint endpoint(std::string(93, 'n'));
    log.clear();

    endpoint.close();

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_close: socket address name '" +
                                 std::string(93, 'n') + "' is too long in kp_notify_close()"});
    EXPECT_FALSE(file_exists(socket_path(std::string(92, 'n'))));
}

TEST_F(NotifyClose, EndsEvenIfItCannotWakeTheThreads)
{
    Endpoint endpoint;
    StderrCapture log;
    FailNext write(Call::write, EPIPE);

    endpoint.close();

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_notify_close: write cancel fd failed\n\033[0m"
              "\033[93mWARN: kp_notify_close: read cancel fd failed\n\033[0m");
}

TEST_F(NotifyClose, ReportsThatItCannotTakeItsByteBack)
{
    Endpoint endpoint;
    StderrCapture log;
    FailNext read(Call::read, EIO);

    endpoint.close();

    EXPECT_EQ(log.lines(), Lines{"WARN: kp_notify_close: read cancel fd failed"});
}

TEST_F(NotifyClose, ReportsNothingElseWhenTheSocketFileIsGone)
{
    Endpoint endpoint;
    EXPECT_EQ(unlink("/run/providers/endpoint"), 0);
    StderrCapture log;

    endpoint.close();

    EXPECT_EQ(log.text(), "");
}

TEST_F(NotifyClose, DoesNotWaitForTheTriesOfADeadSocket)
{
    Endpoint endpoint;
    StderrCapture log;
    const CountCalls tries(Call::connect);
    UnixSocket::leave_dead_file("/run/providers/dead");
    ASSERT_TRUE(wait_until([&] { return tries.count() == 1; }));

    endpoint.close();

    EXPECT_EQ(tries.count(), 1);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(file_exists("/run/providers/dead"));
}

TEST_F(NotifyClose, TakesBackAConnectionThatIsStoredMeanwhile)
{
    Endpoint endpoint;
    CountCalls fcntls(Call::fcntl);
    const Before storing(Call::fcntl, wait_for_close);
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    ASSERT_TRUE(wait_until([&] { return fcntls.count() == 1; }));

    endpoint.close();

    EXPECT_TRUE(listening.accept().is_closed_by_peer());
}

TEST_F(NotifyClose, TakesBackAPeerThatIsAcceptedMeanwhile)
{
    Endpoint endpoint;
    CountCalls accepts(Call::accept4);
    const Before accepting(Call::accept4, wait_for_close);
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(wait_until([&] { return accepts.count() == 1; }));

    endpoint.close();

    EXPECT_TRUE(peer.is_closed_by_peer());
}

TEST_F(NotifyClose, WaitsForTheCallbackToReturn)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    static std::atomic<bool> entered;
    static std::atomic<bool> left;
    kp_notify_t *endpoint = kp_notify_init(
        "endpoint", 129,
        [](const uint8_t *, int32_t, void *) {
            entered = true;
            wait_for_close();
            left = true;
        },
        nullptr);
    EXPECT_TRUE(listening.accept().send(write_notice({1})));
    ASSERT_TRUE(wait_until([] { return entered.load(); }));

    EXPECT_EQ(kp_notify_close(&endpoint), 0);

    EXPECT_TRUE(left);
}

TEST_F(NotifyClose, EndsASendOfTheCallbackThatWaitsForASlowPeer)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    static kp_notify_t *endpoint;
    static std::atomic<int> sent;
    StderrCapture log;
    endpoint = kp_notify_init(
        "endpoint", 129,
        [](const uint8_t *notice, int32_t length, void *) {
            while (!kp::is_stopping(*endpoint)) {
                (void)kp_notify_send(endpoint, notice, static_cast<uint32_t>(length));
                ++sent;
            }
        },
        nullptr);
    const UnixSocket slow = UnixSocket::connected("/run/providers/endpoint");
    const UnixSocket peer = listening.accept();
    EXPECT_TRUE(peer.send(write_notice({1})));
    EXPECT_TRUE(wait_until([] { // a full buffer, and a send that began with it
        const int before = sent;
        return is_full(kp::load_ordered(endpoint->client_fds[1])) &&
               kp::load_ordered(endpoint->senders[1]) == 1 && sent == before;
    }));

    EXPECT_EQ(kp_notify_close(&endpoint), 0);

    EXPECT_GT(sent, 0);
}

TEST_F(NotifyClose, ClosesNoDescriptorBeforeItsThreadsAreGone)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    Endpoint endpoint;
    endpoint.inbox().hold();
    EXPECT_TRUE(listening.accept().send(write_notice({1})));
    ASSERT_TRUE(wait_until([&] { return endpoint.inbox().is_holding(); }));
    const UnixSocket server = BareEndpoint::connect(endpoint->server_fds[16]);
    const UnixSocket client = BareEndpoint::connect(endpoint->client_fds[16]);
    const UnixSocket last_server = BareEndpoint::connect(endpoint->server_fds[31]);
    const UnixSocket first_client = BareEndpoint::connect(endpoint->client_fds[1]);
    const std::vector<int> fds{endpoint.client(0), endpoint.server(0),  endpoint.server(16),
                               endpoint.client(1), endpoint.server(31), endpoint.client(16)};

    std::thread closing(
        [endpoint = endpoint.get()]() mutable { (void)kp_notify_close(&endpoint); });
    EXPECT_TRUE(wait_until([&] { return endpoint.server(31) == -1; }));
    const std::map<int, std::string> open = open_descriptors();
    endpoint.inbox().resume();
    closing.join();
    endpoint.forget();

    for (const int fd : fds)
        EXPECT_TRUE(open.contains(fd)) << fd;
    for (const int fd : fds)
        EXPECT_FALSE(open_descriptors().contains(fd)) << fd;
}

TEST_F(NotifyClose, LeavesTheNumberOfItsPipeToItsNextOwner)
{
    Endpoint endpoint;
    const int number = endpoint->cancel_fds[1];
    StderrCapture log;
    const FailNext write(Call::write, EPIPE); // so that the pipe is closed early
    const Before closing(Call::read, [number] { EXPECT_EQ(dup2(STDIN_FILENO, number), number); });

    endpoint.close();

    EXPECT_EQ(close(number), 0);
}

constexpr const char *kEndOfLogLine = "\033[0m"; // the colour ends with each line, of any level

// How many lines of errors each of the three threads has written. They write at the same time.
std::vector<std::size_t> count_from_threads(const StderrCapture &log)
{
    return {log.count_of("ERROR: subscriber_connecting_listener("),
            log.count_of("ERROR: publisher_linkup_listener("),
            log.count_of("ERROR: message_receive_listener(")};
}

TEST_F(NotifyClose, EndsWhenTheThreadsDiedLongBefore)
{
    StderrCapture log;
    FailFrom epolls(Call::epoll_create1, 1, EMFILE);
    Endpoint endpoint;
    EXPECT_TRUE(wait_until([&] { return epolls.count() == 3; }));

    endpoint.close();

    EXPECT_EQ(count_from_threads(log), (std::vector<std::size_t>{1, 1, 1}));
    EXPECT_EQ(log.count_of("epoll_create1 failed\n"), 3U);
    EXPECT_EQ(log.count_of(kEndOfLogLine), 3U);
}

TEST_F(NotifyClose, EndsWhenNoThreadCanBeWoken)
{
    StderrCapture log;
    FailFrom adding(Call::epoll_ctl, 1, ENOMEM);
    Endpoint endpoint;
    EXPECT_TRUE(wait_until([&] { return adding.count() == 6; }));

    endpoint.close();

    EXPECT_EQ(count_from_threads(log), (std::vector<std::size_t>{2, 2, 2}));
    EXPECT_EQ(log.count_of("epoll_ctl(EPOLL_CTL_ADD, "), 6U);
    EXPECT_EQ(log.count_of(") failed\n"), 6U);
    EXPECT_EQ(log.count_of(kEndOfLogLine), 6U);
}

TEST_F(NotifyClose, CanBeFollowedByAnEndpointOfTheSameName)
{
    Endpoint first;
    first.close();

    const Endpoint second;

    EXPECT_TRUE(UnixSocket::connected("/run/providers/endpoint").is_open());
}

} // namespace
