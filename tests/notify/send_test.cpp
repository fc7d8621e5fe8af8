// Sending to peers that are there, gone, slow or on their way.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/pauses.h"

#include <atomic>

using namespace kptest;

namespace {

class NotifySend : public NotifyTest {};

UnixSocket connect_to_endpoint()
{
    return UnixSocket::connected("/run/providers/endpoint");
}

int32_t send(const BareEndpoint &endpoint, const std::string &message)
{
    return kp_notify_send(&*endpoint, message.data(), static_cast<uint32_t>(message.size()));
}

// Sends one notice a number of times, from a thread of its own.
class Sender {
  public:
    Sender(const Endpoint &endpoint, int count)
        : thread_([this, &endpoint, count] {
              while (sent_ < count) {
                  endpoint.send(write_notice({9}));
                  ++sent_;
              }
          })
    {
    }
    ~Sender()
    {
        thread_.join();
    }

    int sent() const
    {
        return sent_;
    }
    // Says whether it has sent all within the deadline.
    bool has_sent(int count) const
    {
        return wait_until([this, count] { return sent_ == count; });
    }

  private:
    std::atomic<int> sent_ = 0;
    std::thread thread_;
};

// More notices than the buffers of a connection hold.
constexpr int kTooMany = 2000;

TEST_F(NotifySend, DoesNothingWithoutPeers)
{
    const Endpoint endpoint;
    StderrCapture log;
    const CountCalls sends(Call::send);

    endpoint.send(write_notice({1}));

    EXPECT_EQ(sends.count(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(NotifySend, ReachesEveryPeerWithTheBytesOfTheMessage)
{
    const Endpoint endpoint;
    const UnixSocket first = connect_to_endpoint();
    const UnixSocket second = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(2));

    endpoint.send(write_notice({0, 15, 1023}));
    endpoint.send(new_tag_notice("a/b/c"));

    EXPECT_EQ(first.recv(516), write_notice({0, 15, 1023}) + new_tag_notice("a/b/c"));
    EXPECT_EQ(second.recv(516), write_notice({0, 15, 1023}) + new_tag_notice("a/b/c"));
}

TEST_F(NotifySend, ServesSlotsOneToThirtyOneWithOneCallEach)
{
    BareEndpoint endpoint;
    const UnixSocket zero = BareEndpoint::connect(endpoint->client_fds[0]);
    const UnixSocket first = BareEndpoint::connect(endpoint->client_fds[1]);
    const UnixSocket last = BareEndpoint::connect(endpoint->client_fds[31]);
    const CountCalls sends(Call::send);

    EXPECT_EQ(send(endpoint, write_notice({1})), 0);

    EXPECT_EQ(sends.count(), 2);
    EXPECT_EQ(first.recv(129), write_notice({1}));
    EXPECT_EQ(last.recv(129), write_notice({1}));
    EXPECT_FALSE(zero.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(NotifySend, ReportsAPeerThatIsGoneWithoutASignal)
{
    BareEndpoint endpoint;
    BareEndpoint::connect(endpoint->client_fds[2]).close();
    const UnixSocket next = BareEndpoint::connect(endpoint->client_fds[3]);
    StderrCapture log;

    EXPECT_EQ(send(endpoint, write_notice({1})), 0); // SIGPIPE would end the process

    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_notify_send: send failed: 2 (" +
                                                   std::to_string(endpoint->client_fds[2]) +
                                                   "), errno=32\n\033[0m");
    EXPECT_EQ(next.recv(129), write_notice({1}));
}

TEST_F(NotifySend, LeavesThePeerWhoseSendFailedInItsSlot)
{
    const Endpoint endpoint;
    const UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;
    FailNext failing(Call::send, ENOBUFS);

    endpoint.send(write_notice({1}));
    endpoint.send(write_notice({2}));

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_send: send failed: 1 (" +
                                 std::to_string(endpoint.client(1)) + "), errno=105"});
    EXPECT_EQ(peer.recv(129), write_notice({2}));
}

TEST_F(NotifySend, ReportsTheNumberThatTheSlotHoldsAfterwards)
{
    BareEndpoint endpoint;
    BareEndpoint::connect(endpoint->client_fds[1]).close();
    const kp::OwnFd gone(endpoint->client_fds[1]);
    StderrCapture log;
    const Before freed(Call::send, [&] { kp::store_release(endpoint->client_fds[1], -1); });

    EXPECT_EQ(send(endpoint, write_notice({1})), 0);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_send: send failed: 1 (-1), errno=32"});
}

TEST_F(NotifySend, WaitsForAPeerThatIsSlow)
{
    const Endpoint endpoint;
    const UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));

    const Sender sender(endpoint, kTooMany);
    EXPECT_TRUE(wait_until([&] { return readable_bytes(peer.fd()) > 20'000; }));
    EXPECT_LT(sender.sent(), kTooMany);

    EXPECT_EQ(peer.recv(129 * kTooMany).size(), 129U * kTooMany);
    EXPECT_TRUE(sender.has_sent(kTooMany));
}

TEST_F(NotifySend, EndsItsWaitWhenTheSlowPeerGoes)
{
    const Endpoint endpoint;
    UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;

    const Sender sender(endpoint, kTooMany);
    EXPECT_TRUE(wait_until([&] { return readable_bytes(peer.fd()) > 20'000; }));
    peer.close();

    EXPECT_TRUE(sender.has_sent(kTooMany));
    EXPECT_TRUE(endpoint.has_clients(0));
}

TEST_F(NotifySend, EndsItsWaitWhenTheSlowPeerIsDropped)
{
    const Endpoint endpoint;
    const UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;

    const Sender sender(endpoint, kTooMany);
    EXPECT_TRUE(wait_until([&] { return readable_bytes(peer.fd()) > 20'000; }));
    EXPECT_TRUE(peer.send("x")); // which no peer does, and it goes on without reading

    EXPECT_TRUE(sender.has_sent(kTooMany));
    EXPECT_TRUE(endpoint.has_clients(0));
    EXPECT_TRUE(peer.is_open());
}

TEST_F(NotifySend, KeepsTheAcceptThreadWaitingWhileItSendsToASecondPeer)
{
    const Endpoint endpoint;
    const UnixSocket first = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    UnixSocket second = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(2));
    StderrCapture log;
    const int fd = endpoint.client(2);
    const CountCalls pauses(Call::usleep);
    bool was_open = false;
    const Before sending(
        Call::send,
        [&] {
            second.close();
            EXPECT_TRUE(wait_until([&] { return pauses.count() >= 3; }));
            was_open = open_descriptors().contains(fd);
        },
        2);

    endpoint.send(write_notice({1}));

    EXPECT_TRUE(was_open);
    EXPECT_EQ(last_wait(Call::usleep), 50);
    EXPECT_TRUE(endpoint.has_clients(1));
}

TEST_F(NotifySend, KeepsADescriptorFromBeingClosedWhileItSends)
{
    const Endpoint endpoint;
    UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;
    const int fd = endpoint.client(1);
    bool was_freed = false;
    bool was_open = false;
    const Before sending(Call::send, [&] { // the accept thread drops the peer right now
        peer.close();
        was_freed = endpoint.has_clients(0);
        was_open = open_descriptors().contains(fd);
    });

    endpoint.send(write_notice({1}));

    EXPECT_TRUE(was_freed);
    EXPECT_TRUE(was_open);
    EXPECT_TRUE(wait_until([&] { return !open_descriptors().contains(fd); }));
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_send: send failed: 1 (-1), errno=32"});
}

} // namespace
