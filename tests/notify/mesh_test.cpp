// Several endpoints of one process with each other.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <atomic>
#include <deque>
#include <memory>

using namespace kptest;

namespace {

class Mesh : public NotifyTest {};

// Endpoints "e0", "e1" and so on, opened one after another.
void open_endpoints(std::deque<Endpoint> &endpoints, std::size_t count)
{
    while (endpoints.size() < count)
        endpoints.emplace_back("e" + std::to_string(endpoints.size()));
}

bool all_have(const std::deque<Endpoint> &endpoints, int peers)
{
    return std::all_of(endpoints.begin(), endpoints.end(), [peers](const Endpoint &endpoint) {
        return endpoint.has_clients(peers) && endpoint.has_servers(peers);
    });
}

TEST_F(Mesh, OfTwoEndpointsHasOneConnectionEachWay)
{
    const Endpoint first("first");
    const Endpoint second("second");

    EXPECT_TRUE(first.has_servers(1));
    EXPECT_TRUE(first.has_clients(1));
    EXPECT_TRUE(second.has_servers(1));
    EXPECT_TRUE(second.has_clients(1));
}

TEST_F(Mesh, CarriesMessagesBothWays)
{
    Endpoint first("first");
    Endpoint second("second");
    ASSERT_TRUE(first.has_clients(1));
    ASSERT_TRUE(second.has_clients(1));

    first.send(write_notice({1}));
    second.send(new_tag_notice("a/b"));

    EXPECT_TRUE(second.inbox().has_received(1));
    EXPECT_TRUE(first.inbox().has_received(1));
    EXPECT_EQ(second.inbox().messages(), std::vector{write_notice({1})});
    EXPECT_EQ(first.inbox().messages(), std::vector{new_tag_notice("a/b")});
}

TEST_F(Mesh, OfFiveEndpointsIsFull)
{
    std::deque<Endpoint> endpoints;

    open_endpoints(endpoints, 5);

    EXPECT_TRUE(all_have(endpoints, 4));
}

// Opens endpoints "e0", "e1" and so on, each on a thread of its own and so much after the one
// before.
void open_together(std::vector<std::unique_ptr<Endpoint>> &endpoints,
                   std::chrono::microseconds spacing)
{
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < endpoints.size(); ++index) {
        threads.emplace_back([&endpoints, index] {
            endpoints[index] = std::make_unique<Endpoint>("e" + std::to_string(index));
        });
        std::this_thread::sleep_for(spacing);
    }
    for (std::thread &thread : threads)
        thread.join();
}

class FullMesh : public NotifyTest, public testing::WithParamInterface<int> {};

TEST_P(FullMesh, ConnectsEachToEach)
{
    StderrCapture log;
    std::vector<std::unique_ptr<Endpoint>> endpoints(32);

    open_together(endpoints, std::chrono::microseconds(GetParam()));

    EXPECT_TRUE(std::all_of(endpoints.begin(), endpoints.end(), [](const auto &endpoint) {
        return endpoint->has_clients(31) && endpoint->has_servers(31);
    }));
    EXPECT_EQ(log.text(), "");
}

// A user has 128 inotify instances, so only a few of these can run at once.
INSTANTIATE_TEST_SUITE_P(StartedMicrosecondsApart, FullMesh, testing::Values(0, 3000, 20'000));

TEST_F(Mesh, LosesBothConnectionsOfAPeerThatCloses)
{
    const Endpoint staying("staying");
    Endpoint leaving("leaving");
    ASSERT_TRUE(staying.has_clients(1));
    ASSERT_TRUE(staying.has_servers(1));
    StderrCapture log;

    leaving.close();

    EXPECT_TRUE(staying.has_clients(0));
    EXPECT_TRUE(staying.has_servers(0));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Mesh, FindsAPeerThatComesBack)
{
    Endpoint staying("staying");
    {
        const Endpoint leaving("leaving");
        ASSERT_TRUE(staying.has_clients(1));
    }
    ASSERT_TRUE(staying.has_clients(0));
    ASSERT_TRUE(staying.has_servers(0));

    const Endpoint again("leaving");
    ASSERT_TRUE(again.has_clients(1));
    again.send(write_notice({2}));

    EXPECT_TRUE(staying.inbox().has_received(1));
    EXPECT_TRUE(staying.has_clients(1));
}

TEST_F(Mesh, TakesOverTheSocketFileOfAnEndpointOfTheSameName)
{
    const Endpoint first("twin");
    const Endpoint second("twin");
    const Endpoint third("third");

    EXPECT_TRUE(third.has_servers(1));
    EXPECT_TRUE(second.has_clients(1));
    EXPECT_EQ(first.client_count(), 0);
}

// Keeps an endpoint sending from several threads for as long as the object lives.
class Traffic {
  public:
    explicit Traffic(const Endpoint &endpoint)
    {
        for (std::thread &thread : threads_)
            thread = std::thread([this, &endpoint] {
                while (!stop_) {
                    endpoint.send(write_notice({1}));
                    endpoint.send(new_tag_notice("a"));
                    ++rounds_;
                    std::this_thread::yield();
                }
            });
    }
    ~Traffic()
    {
        stop();
    }

    long stop()
    {
        stop_ = true;
        for (std::thread &thread : threads_)
            if (thread.joinable())
                thread.join();
        return rounds_;
    }

  private:
    std::atomic<bool> stop_ = false;
    std::atomic<long> rounds_ = 0;
    std::thread threads_[2];
};

// Makes peers that connect, read a little or nothing, and go.
void come_and_go(int times)
{
    for (int time = 0; time < times; ++time) {
        const UnixSocket peer = UnixSocket::connected("/run/providers/sender");
        (void)peer.recv(static_cast<std::size_t>(time % 3) * 100, std::chrono::milliseconds(100));
    }
}

void open_and_close_endpoints(const std::string &name, int times)
{
    for (int time = 0; time < times; ++time) {
        Endpoint endpoint(name);
        (void)wait_until([&] { return endpoint.inbox().count() > 0; },
                         std::chrono::milliseconds(20));
    }
}

std::size_t count_of(const std::vector<std::string> &messages, const std::string &message)
{
    return static_cast<std::size_t>(std::count(messages.begin(), messages.end(), message));
}

TEST_F(Mesh, LosesNothingForAStayingPeerWhileOthersComeAndGo)
{
    StderrCapture log; // sends to peers that are just going fail
    Endpoint sender("sender");
    Endpoint staying("staying");
    ASSERT_TRUE(sender.has_clients(1));
    Traffic traffic(sender);

    std::thread sockets([] { come_and_go(200); });
    std::thread more_sockets([] { come_and_go(200); });
    open_and_close_endpoints("going", 15);
    sockets.join();
    more_sockets.join();
    const auto rounds = static_cast<std::size_t>(traffic.stop());

    EXPECT_TRUE(staying.inbox().has_received(2 * rounds));
    const std::vector<std::string> messages = staying.inbox().messages();
    EXPECT_EQ(count_of(messages, write_notice({1})), rounds);
    EXPECT_EQ(count_of(messages, new_tag_notice("a")), rounds);
    EXPECT_TRUE(sender.has_clients(1));
}

TEST_F(Mesh, SurvivesEndpointsThatStartAndEndTogether)
{
    StderrCapture log; // a peer can vanish between its discovery and the connect
    std::thread first([] { open_and_close_endpoints("first", 10); });
    std::thread second([] { open_and_close_endpoints("second", 10); });
    std::thread third([] { open_and_close_endpoints("third", 10); });

    first.join();
    second.join();
    third.join();

    EXPECT_FALSE(file_exists("/run/providers/first"));
    EXPECT_FALSE(file_exists("/run/providers/second"));
    EXPECT_FALSE(file_exists("/run/providers/third"));
}

} // namespace
