// The accept thread: taking in peers, dropping them, and its walk over the ready events.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <fcntl.h>

using namespace kptest;
using kp::subscriber_connecting_listener;

namespace {

class AcceptThread : public NotifyTest {};

UnixSocket connect_to_endpoint(const std::string &name = "endpoint")
{
    return UnixSocket::connected(socket_path(name));
}

std::vector<UnixSocket> connect_peers(std::size_t count)
{
    std::vector<UnixSocket> peers;
    while (peers.size() < count)
        peers.push_back(connect_to_endpoint());
    return peers;
}

std::size_t count_receivers(const std::vector<UnixSocket> &peers, const std::string &message)
{
    std::size_t count = 0;
    for (const UnixSocket &peer : peers)
        count += peer.recv(message.size()) == message;
    return count;
}

// Peers of a bare record that connect through its listening socket.
struct Peers {
    explicit Peers(const BareEndpoint &bare) : endpoint(bare)
    {
    }
    Step connect()
    {
        return [this] { sockets.push_back(connect_to_endpoint("bare")); };
    }
    Step hang_up(std::size_t index)
    {
        return [this, index] { sockets[index].close(); };
    }
    bool has(std::size_t slot) const
    {
        return endpoint->client_fds[slot] != -1;
    }

    const BareEndpoint &endpoint;
    std::vector<UnixSocket> sockets;
};

TEST_F(AcceptThread, TakesAPeerIntoTheFirstFreeSlot)
{
    const Endpoint endpoint;

    const UnixSocket peer = connect_to_endpoint();

    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_NE(endpoint.client(1), -1);
}

TEST_F(AcceptThread, LeavesAcceptedConnectionsBlocking)
{
    const Endpoint endpoint;

    const UnixSocket peer = connect_to_endpoint();

    ASSERT_TRUE(endpoint.has_clients(1));
    EXPECT_EQ(fcntl(endpoint.client(1), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(AcceptThread, DropsAPeerThatHangsUpAndTakesTheNextIntoItsSlot)
{
    const Endpoint endpoint;
    std::vector<UnixSocket> peers = connect_peers(2);
    ASSERT_TRUE(endpoint.has_clients(2));

    peers[0].close();
    ASSERT_TRUE(endpoint.has_clients(1));
    EXPECT_EQ(endpoint.client(1), -1);
    const UnixSocket next = connect_to_endpoint();

    EXPECT_TRUE(endpoint.has_clients(2));
    EXPECT_NE(endpoint.client(1), -1);
}

TEST_F(AcceptThread, DropsAPeerThatSends)
{
    const Endpoint endpoint;
    const UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));

    EXPECT_TRUE(peer.send("x"));

    EXPECT_TRUE(peer.is_closed_by_peer());
    EXPECT_TRUE(endpoint.has_clients(0));
}

TEST_F(AcceptThread, TakesInThirtyOnePeers)
{
    const Endpoint endpoint;
    StderrCapture log;

    const std::vector<UnixSocket> peers = connect_peers(31);

    EXPECT_TRUE(endpoint.has_clients(31));
    endpoint.send(write_notice({7}));
    EXPECT_EQ(count_receivers(peers, write_notice({7})), 31U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(AcceptThread, RefusesTheThirtySecondPeer)
{
    const Endpoint endpoint;
    StderrCapture log;
    const std::vector<UnixSocket> peers = connect_peers(31);
    ASSERT_TRUE(endpoint.has_clients(31));

    const UnixSocket refused = connect_to_endpoint();

    EXPECT_TRUE(refused.is_closed_by_peer());
    EXPECT_EQ(endpoint.client_count(), 31);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: subscriber_connecting_listener: Cannot "
              "find free socket in client_fds poll\n\033[0m");
}

TEST_F(AcceptThread, TakesAPeerInAgainOnceASlotIsFree)
{
    const Endpoint endpoint;
    StderrCapture log;
    std::vector<UnixSocket> peers = connect_peers(31);
    ASSERT_TRUE(endpoint.has_clients(31));
    EXPECT_TRUE(connect_to_endpoint().is_closed_by_peer());

    peers[16].close();
    ASSERT_TRUE(endpoint.has_clients(30));
    peers[16] = connect_to_endpoint();

    EXPECT_TRUE(endpoint.has_clients(31));
    endpoint.send(write_notice({8}));
    EXPECT_EQ(count_receivers(peers, write_notice({8})), 31U);
}

// The ready events come in the order in which they arose.

TEST_F(AcceptThread, GoesOnBehindTheNumberOfTheSlotThatItFilled)
{
    const BareEndpoint endpoint;
    endpoint.listen();
    Peers peers(endpoint);
    bool skipped = false;
    bool served = false;

    run_in_steps(subscriber_connecting_listener, endpoint,
                 {peers.connect(), peers.connect(), peers.connect(),
                  [&] { // one wait reports the new peer and, behind it, two that are gone
                      peers.connect()();
                      peers.hang_up(0)();
                      peers.hang_up(1)();
                  },
                  [&] { skipped = peers.has(4) && peers.has(1) && peers.has(2); },
                  [&] {
                      served = peers.has(4) && !peers.has(1) && !peers.has(2);
                      endpoint.stop();
                  }});

    EXPECT_TRUE(skipped) << "the events behind the new peer wait for the next time";
    EXPECT_TRUE(served);
}

TEST_F(AcceptThread, MeetsEventsTwiceWhenTheSlotLiesBeforeThem)
{
    const BareEndpoint endpoint;
    endpoint.listen();
    Peers peers(endpoint);
    bool kept = false;

    run_in_steps(subscriber_connecting_listener, endpoint,
                 {peers.connect(), peers.connect(), peers.connect(), peers.connect(),
                  peers.connect(), peers.connect(),
                  peers.hang_up(5), // lets the listening socket leave the list of ready ones
                  [&] { // slots 1 to 5 come free, then slot 1 is taken and events 2 to 5 come again
                      peers.hang_up(0)();
                      peers.hang_up(1)();
                      peers.hang_up(2)();
                      peers.hang_up(3)();
                      peers.hang_up(4)();
                      peers.connect()();
                  },
                  [&] {
                      kept = peers.has(1) && !peers.has(2) && !peers.has(5);
                      endpoint.stop();
                  }});

    EXPECT_TRUE(kept);
    EXPECT_FALSE(peers.sockets[6].is_closed_by_peer(std::chrono::milliseconds(0)));
}

TEST_F(AcceptThread, LeavesTheRestOfABatchWhenItRefusesAPeer)
{
    BareEndpoint endpoint;
    endpoint.listen();
    Peers peers(endpoint);
    std::vector<UnixSocket> others;
    for (std::size_t slot = 2; slot < 32; ++slot)
        others.push_back(BareEndpoint::connect(endpoint->client_fds[slot]));
    StderrCapture log;
    bool left = false;
    bool served = false;

    run_in_steps(subscriber_connecting_listener, endpoint,
                 {peers.connect(),
                  [&] {
                      peers.connect()();
                      EXPECT_TRUE(peers.sockets[0].send("x"));
                  },
                  [&] { left = peers.has(1); },
                  [&] {
                      served = !peers.has(1);
                      endpoint.stop();
                  }});

    EXPECT_TRUE(left);
    EXPECT_TRUE(served);
    EXPECT_TRUE(peers.sockets[1].is_closed_by_peer());
    EXPECT_EQ(log.lines(), Lines{"WARN: subscriber_connecting_listener: Cannot find free socket in "
                                 "client_fds poll"});
}

TEST_F(AcceptThread, GivesANewPeerThePlaceOfOneThatHasHungUp)
{
    BareEndpoint endpoint;
    endpoint.listen();
    Peers peers(endpoint);
    std::vector<UnixSocket> others;
    for (std::size_t slot = 2; slot < 32; ++slot)
        others.push_back(BareEndpoint::connect(endpoint->client_fds[slot]));
    StderrCapture log;
    bool taken = false;

    run_in_steps(subscriber_connecting_listener, endpoint,
                 {peers.connect(),
                  [&] { // the new peer is reported first
                      peers.connect()();
                      peers.hang_up(0)();
                  },
                  [&] {
                      taken = peers.has(1);
                      endpoint.stop();
                  }});

    EXPECT_TRUE(taken);
    EXPECT_FALSE(peers.sockets[1].is_closed_by_peer(std::chrono::milliseconds(0)));
    EXPECT_EQ(log.text(), "");
}

TEST_F(AcceptThread, ClearsTheStopFlagWhenItStarts)
{
    const BareEndpoint endpoint;
    endpoint.listen();
    kp::store_release(endpoint->stop, 1);
    int flag_at_first_wait = -1;

    run_in_steps(subscriber_connecting_listener, endpoint, {[&] {
                     flag_at_first_wait = kp::load_acquire(endpoint->stop);
                     endpoint.stop();
                 }});

    EXPECT_EQ(flag_at_first_wait, 0);
}

TEST_F(AcceptThread, GoesOnSilentlyAfterAFailedAccept)
{
    const Endpoint endpoint;
    StderrCapture log;
    FailNext accept(Call::accept4, ECONNABORTED);

    const UnixSocket peer = connect_to_endpoint();

    EXPECT_TRUE(endpoint.has_clients(1)); // the connection still waited
    EXPECT_EQ(log.text(), "");
}

TEST_F(AcceptThread, PausesWhileItHasNoDescriptorAndRecovers)
{
    const Endpoint endpoint;
    StderrCapture log;
    FailFrom accepts(Call::accept4, 1, EMFILE);
    const auto start = std::chrono::steady_clock::now();

    const UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(wait_until([&] { return accepts.count() >= 5; }));
    const auto duration = std::chrono::steady_clock::now() - start;
    accepts.disarm();

    EXPECT_GE(duration, std::chrono::milliseconds(40)); // 10 ms between each two of five
    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_EQ(log.text(), "");
}

TEST_F(AcceptThread, KeepsAPeerThatItCannotWatch)
{
    const SettledEndpoint endpoint;
    StderrCapture log;
    FailNext add(Call::epoll_ctl);

    const UnixSocket peer = connect_to_endpoint();

    ASSERT_TRUE(endpoint.has_clients(1));
    endpoint.send(write_notice({3}));
    EXPECT_EQ(peer.recv(129), write_notice({3}));
    EXPECT_TRUE(wait_until([&] { return log.has_log_lines(1); }));
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: subscriber_connecting_listener: epoll_ctl(EPOLL_CTL_ADD, " +
                    std::to_string(endpoint.client(1)) + ") failed"});
}

TEST_F(AcceptThread, DropsAPeerThatItCannotTakeOutOfItsSet)
{
    const SettledEndpoint endpoint;
    UnixSocket peer = connect_to_endpoint();
    ASSERT_TRUE(endpoint.has_clients(1));
    const int fd = endpoint.client(1);
    StderrCapture log;
    FailNext remove(Call::epoll_ctl);

    EXPECT_TRUE(peer.send("x"));

    EXPECT_TRUE(peer.is_closed_by_peer());
    EXPECT_TRUE(endpoint.has_clients(0));
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: subscriber_connecting_listener: epoll_ctl(EPOLL_CTL_DEL, " +
                    std::to_string(fd) + ") failed"});
}

} // namespace
