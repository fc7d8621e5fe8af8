// Clients that are slow, stopped, vanished or too many.
#include "testing/store_provider.h"
#include "web/client.h"
#include "web/web_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using namespace kptest;
using testing::HasSubstr;

namespace {

// Changes a value as long as the object lives.
class Writer {
  public:
    Writer()
    {
        for (int number = 0; number < 50; ++number)
            tags_.push_back(std::make_unique<StoreProvider>("plant/t" + std::to_string(number),
                                                            KP_TYPE_STRING));
        thread_ = std::jthread([this](const std::stop_token &stop) {
            for (uint64_t count = 1; !stop.stop_requested(); ++count) {
                for (const auto &tag : tags_)
                    tag->write(std::string(500, 'a' + static_cast<char>(count % 26)), count);
                std::this_thread::sleep_for(std::chrono::milliseconds(10)); // 100 rounds a second
            }
        });
    }

  private:
    std::vector<std::unique_ptr<StoreProvider>> tags_;
    std::jthread thread_;
};

// Each client gets stuck only after some time, since the sockets have to fill first.
bool wait_until_stuck(const WebProgram &web, std::size_t streams)
{
    return wait_until([&] {
        return web.get("/metrics").body.find("kp_web_streams " + std::to_string(streams)) !=
               std::string::npos;
    });
}

#ifdef __SANITIZE_ADDRESS__
constexpr long kMostKibOfAClient = 4096; // the program keeps for a while what was freed
#else
constexpr long kMostKibOfAClient = 64;
#endif

TEST(WebClients, ThatNeverReadCostLittleAndDelayNobody)
{
    constexpr std::size_t kStalled = 50;
    const Writer writer;
    const WebProgram web;
    Client warm_up(web.port());
    ASSERT_TRUE(warm_up.ask("/watch"));
    ASSERT_TRUE(warm_up.wait_for("event: current"));
    const long before = web.memory();

    std::vector<std::unique_ptr<Client>> stalled;
    for (std::size_t number = 0; number < kStalled; ++number) {
        stalled.push_back(std::make_unique<Client>(web.port(), 4096));
        ASSERT_TRUE(stalled.back()->ask("/watch?rate=100"));
    }
    ASSERT_TRUE(wait_until_stuck(web, kStalled + 1));
    Client reader(web.port());
    ASSERT_TRUE(reader.ask("/watch"));
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(reader.wait_for("\"topic\":\"plant/t49\""));
        reader.forget();
    }

    EXPECT_LE(web.memory() - before, static_cast<long>(kStalled + 1) * kMostKibOfAClient);
}

TEST(WebClients, ThatVanishAreForgotten)
{
    const Writer writer;
    const WebProgram web;
    const std::size_t before = web.descriptor_count();
    for (int number = 0; number < 20; ++number) {
        Client client(web.port());
        ASSERT_TRUE(client.ask("/watch"));
        ASSERT_TRUE(client.wait_for("event: current"));
    }

    EXPECT_TRUE(wait_until(
        [&] { return web.get("/metrics").body.find("kp_web_streams 0\n") != std::string::npos; }));
    EXPECT_TRUE(wait_until([&] { return web.descriptor_count() <= before + 50; }));
}

TEST(WebClients, OneTooManyIsToldSo)
{
    const WebProgram web("[limits]\nclients = 2\n");
    Client first(web.port());
    Client second(web.port());
    ASSERT_TRUE(first.ask("/watch"));
    ASSERT_TRUE(second.ask("/watch"));
    ASSERT_TRUE(first.wait_for("event: current"));
    ASSERT_TRUE(second.wait_for("event: current"));

    Client third(web.port());
    EXPECT_TRUE(third.wait_for("HTTP/1.1 503 Service Unavailable"));
    EXPECT_TRUE(third.wait_for_end());
}

TEST(WebClients, ThatSendTheirRequestTooSlowlyAreCutOff)
{
    const WebProgram web("[limits]\nrequest-time = 0.5\n");
    Client client(web.port());

    ASSERT_TRUE(client.send("GET /healthz HTTP/1.1\r\nHost: local"));

    EXPECT_TRUE(client.wait_for_end());
    EXPECT_EQ(web.get("/healthz").status, 200);
}

TEST(WebClients, MaySendSeveralRequestsOverOneConnection)
{
    const WebProgram web;
    Client client(web.port());

    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(client.ask("/healthz"));
        EXPECT_TRUE(client.wait_for("\r\n\r\nok\n"));
        client.forget();
    }
}

TEST(WebClients, ThatSendTooMuchAreRefused)
{
    const WebProgram web("[limits]\nurl-bytes = 512\n");
    Client long_target(web.port());
    Client long_header(web.port());

    ASSERT_TRUE(long_target.ask("/tags?q=" + std::string(1000, 'a')));
    EXPECT_TRUE(long_target.wait_for("HTTP/1.1 414 "));
    (void)long_header.ask("/tags", "X: " + std::string(100'000, 'a') + "\r\n");
    EXPECT_TRUE(long_header.wait_for_end() || long_header.wait_for("HTTP/1.1 431 "));
    EXPECT_EQ(web.get("/healthz").status, 200);
}

TEST(WebClients, WithNonsenseAreRefused)
{
    const WebProgram web("[limits]\nrequest-time = 0.5\n");
    for (const std::string nonsense :
         {"\r\n\r\n\r\n", "GET\r\n\r\n", "\x16\x03\x01\x02 TLS\r\n\r\n",
          "GET http://localhost/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n",
          "GET / HTTP/9.9\r\n\r\n", "GET /tags HTTP/1.1\r\n\r\n"}) {
        Client client(web.port());
        (void)client.send(nonsense);
        EXPECT_TRUE(client.wait_for_end()) << nonsense;
        EXPECT_EQ(client.received().find("HTTP/1.1 2"), std::string::npos) << nonsense;
    }
    EXPECT_EQ(web.get("/healthz").status, 200);
}

} // namespace
