// Writing over HTTP: who may write, what is checked, and who is told.
#include "testing/store_provider.h"
#include "web/client.h"
#include "web/web_program.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Matches;

namespace {

constexpr const char *kToken = "a-token-of-the-tests-0123456789";
constexpr const char *kTokenFile = "/run/token";
constexpr const char *kRule = "[[write]]\ntopics = [\"plant/#\"]\ntoken-file = \"/run/token\"\n";

void write_token(const std::string &token, mode_t mode = 0600)
{
    std::ofstream(kTokenFile) << token << '\n';
    std::filesystem::permissions(kTokenFile, std::filesystem::perms(mode));
}

Got put(const WebProgram &web, const std::string &topic, const std::string &body,
        const std::string &token = kToken)
{
    return web.get("/tags/" + topic, {"-X", "PUT", "-H", "Content-Type: application/json", "-H",
                                      "Authorization: Bearer " + token, "--data-binary", body});
}

// Hears the notices of the device, and notes whether one is of this topic.
class Follower {
  public:
    explicit Follower(const std::string &topic)
        : bucket_(kp_hash(topic.c_str())), handle_(kp_new("follower", &Follower::hear))
    {
        (void)kp_set_user_data(handle_, this);
    }
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;
    ~Follower()
    {
        (void)kp_destroy(handle_);
    }
    bool has_heard() const
    {
        return has_heard_;
    }

  private:
    static int hear(kp_t *, const kp_write_info *notice, void *self)
    {
        auto *follower = static_cast<Follower *>(self);
        if (follower && (notice->bitmap[follower->bucket_ >> 3] >> (follower->bucket_ & 7) & 1))
            follower->has_heard_ = true;
        return 0;
    }

    const uint32_t bucket_;
    std::atomic<bool> has_heard_ = false;
    kp_t *handle_;
};

class WebWrite : public testing::Test {
  protected:
    WebWrite()
    {
        write_token(kToken);
        speed_.write(bytes_of(21.5), 1000);
    }

    StoreProvider speed_{"plant/speed", KP_TYPE_DOUBLE};
};

TEST_F(WebWrite, StoresTheValueAndAnswersWithTheTopic)
{
    const WebProgram web(kRule);

    const Got got = put(web, "plant/speed", "{\"value\":22.5,\"quality\":3}");

    EXPECT_EQ(got.status, 200);
    EXPECT_THAT(got.body, HasSubstr("\"value\":22.5,\"quality\":3,"));
    EXPECT_THAT(web.get("/tags/plant/speed").body, HasSubstr("\"value\":22.5,\"quality\":3,"));
    EXPECT_THAT(web.get("/metrics").body, HasSubstr("\nkp_web_writes_total 1\n"));
}

// Writes more than once, since the follower may not be connected at the first write.
TEST_F(WebWrite, IsToldToTheProcessesOfTheDevice)
{
    const Follower follower("plant/speed");
    const WebProgram web(kRule);

    EXPECT_TRUE(wait_until([&] {
        return put(web, "plant/speed", "{\"value\":1}").status == 200 && follower.has_heard();
    }));
}

TEST_F(WebWrite, MakesANewTopicOfAGivenType)
{
    const WebProgram web(kRule);

    EXPECT_EQ(put(web, "plant/new", "{\"value\":1}").body,
              "{\"error\":\"plant/new: a new topic; say its \\\"type\\\"\"}\n");
    EXPECT_EQ(put(web, "plant/new", "{\"value\":1,\"type\":\"int8\"}").status, 201);
    EXPECT_EQ(put(web, "plant/new", "{\"value\":2}").status, 200);
}

TEST_F(WebWrite, NeedsTheTokenOfARuleForTheTopic)
{
    const WebProgram web(kRule);
    const std::string body = "{\"value\":1,\"type\":\"int8\"}";

    const Got none = web.get("/tags/plant/speed", {"-X", "PUT", "-d", body});
    const Got wrong = put(web, "plant/speed", body, std::string(kToken) + "x");
    const Got other = put(web, "press/speed", body);

    EXPECT_EQ(none.status, 401);
    EXPECT_THAT(none.headers, HasSubstr("WWW-Authenticate: Bearer realm=\"kp-web\"\r"));
    EXPECT_EQ(wrong.status, 401);
    EXPECT_THAT(wrong.headers, HasSubstr("Bearer realm=\"kp-web\", error=\"invalid_token\"\r"));
    EXPECT_EQ(other.status, 403);
    EXPECT_THAT(other.headers, HasSubstr("error=\"insufficient_scope\"\r"));
    EXPECT_EQ(web.get("/tags/press/speed").status, 404);
    EXPECT_THAT(web.get("/tags/plant/speed").body, HasSubstr("\"value\":21.5,"));
}

TEST_F(WebWrite, IsNotForPagesOfElsewhere)
{
    const WebProgram web(kRule);

    const Got got = web.get(
        "/tags/plant/speed",
        {"-X", "PUT", "-H", "Content-Type: application/json", "-H", "Origin: http://evil.example",
         "-H", std::string("Authorization: Bearer ") + kToken, "-d", "{\"value\":1}"});

    EXPECT_EQ(got.status, 403);
    EXPECT_THAT(got.body, HasSubstr("a page of elsewhere may not ask"));
}

TEST_F(WebWrite, ChecksTheValueAsKpSetDoes)
{
    std::filesystem::create_directory("/run/tags.d");
    std::ofstream("/run/tags.d/a.toml") << "[\"plant/speed\"]\nrange = [0, 40]\n"
                                           "[\"plant/mode\"]\nnames = { 0 = \"off\", 1 = \"on\" }\n"
                                           "type = \"int16\"\n";
    const WebProgram web("dictionary = \"/run/tags.d\"\n" + std::string(kRule));

    const Got word = put(web, "plant/speed", "{\"value\":\"fast\"}");
    const Got type = put(web, "plant/speed", "{\"value\":1,\"type\":\"int8\"}");
    const Got range = put(web, "plant/speed", "{\"value\":40.5}");
    const Got named = put(web, "plant/mode", "{\"value\":\"on\"}");

    EXPECT_EQ(word.status, 422);
    EXPECT_EQ(type.status, 422);
    EXPECT_EQ(type.body, "{\"error\":\"plant/speed: its type is double, not int8\"}\n");
    EXPECT_EQ(range.status, 422);
    EXPECT_EQ(range.body, "{\"error\":\"plant/speed: 40.5 is outside 0..40\"}\n");
    EXPECT_EQ(named.status, 201);
    EXPECT_THAT(named.body, HasSubstr("\"type\":\"int16\",\"value\":1,"));
    EXPECT_THAT(web.get("/tags/plant/speed").body, HasSubstr("\"value\":21.5,"));
}

TEST_F(WebWrite, IsRefusedWithoutARuleAndTakesNoPlaceInTheMesh)
{
    const WebProgram web;

    const Got got = put(web, "plant/speed", "{\"value\":1}");

    EXPECT_EQ(got.status, 405);
    EXPECT_THAT(got.body, HasSubstr("kp-web only reads here"));
    EXPECT_THAT(got.headers, HasSubstr("Allow: GET, HEAD\r"));
    EXPECT_EQ(output_of("ls -A /run/providers 2>/dev/null"), "");
    EXPECT_EQ(output_of("grep -c 'rw-s.*/dev/shm/' /proc/" + std::to_string(web.pid()) + "/maps"),
              "0\n");
}

TEST_F(WebWrite, TakesABodyOfBoundedLength)
{
    const WebProgram web(kRule);
    Client client(web.port());
    const std::string piece = std::string(4096, ' ');

    ASSERT_TRUE(client.send("PUT /tags/plant/speed HTTP/1.1\r\nHost: localhost\r\n"
                            "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n"
                            "Authorization: Bearer " +
                            std::string(kToken) + "\r\n\r\n"));
    for (int count = 0; count < 17; ++count)
        ASSERT_TRUE(client.send("1000\r\n" + piece + "\r\n"));
    ASSERT_TRUE(client.send("0\r\n\r\n"));

    EXPECT_TRUE(client.wait_for("HTTP/1.1 413 "));
    EXPECT_EQ(web.get("/healthz").status, 200);
}

TEST_F(WebWrite, KeepsAProgramFromStartingWhoseTokenOthersCanRead)
{
    std::ofstream("/run/write.conf") << "listen = [\"127.0.0.1:0\"]\n" << kRule;
    write_token(kToken, 0644);

    ChildProcess program({"/bin/sh", "-c", "exec '" KP_WEB "' -c /run/write.conf 2>/run/said"});

    EXPECT_EQ(program.wait(), 2);
    std::string said;
    std::getline(std::ifstream("/run/said"), said);
    EXPECT_EQ(said, "kp-web: /run/write.conf:4: token-file: /run/token: others can read or change "
                    "it; chmod 0600 or 0640");
}

TEST_F(WebWrite, TakesItsTokensAnewAtAReload)
{
    const WebProgram web(kRule);
    write_token("another-token-of-the-tests");

    web.signal(SIGHUP);
    ASSERT_TRUE(web.wait_for_log("has read its configuration again"));

    EXPECT_EQ(put(web, "plant/speed", "{\"value\":1}").status, 401);
    EXPECT_EQ(put(web, "plant/speed", "{\"value\":1}", "another-token-of-the-tests").status, 200);
}

TEST_F(WebWrite, GoesOnWithItsTokenWhenTheNewOneIsNone)
{
    const WebProgram web(kRule);
    write_token("short");

    web.signal(SIGHUP);
    ASSERT_TRUE(web.wait_for_log("goes on with the configuration that it had"));

    EXPECT_THAT(web.log(), HasSubstr("/run/token: a token is one line of 16 to 256 visible ASCII"));
    EXPECT_EQ(put(web, "plant/speed", "{\"value\":1}").status, 200);
}

// It takes hundreds of writes and five seconds until the peer counts as one that does not read.
constexpr std::chrono::seconds kDeadlineToFill{90};

int run_peer(Channel &parent)
{
    kp_t *handle = kp_new("peer", [](kp_t *, const kp_write_info *, void *) { return 0; });
    (void)parent.tell("running");
    (void)parent.hear();
    return kp_destroy(handle);
}

// The notices fill the socket of the peer, and only so many may wait for it.
TEST_F(WebWrite, IsRefusedWhileAPeerDoesNotReadAndDelaysNobody)
{
    ChildProcess peer(run_peer);
    ASSERT_EQ(peer.hear(), "running");
    const WebProgram web(kRule);
    // The peer connects a moment after it was connected to, and hears nothing before.
    const auto sends_to_it = ContainsRegex("\"name\":\"kp-web-[^}]*\"connections\":1,");
    ASSERT_TRUE(wait_until([&] { return Matches(sends_to_it)(web.get("/peers").body); }));
    peer.signal(SIGSTOP);
    Client client(web.port());
    const std::string request = "PUT /tags/plant/speed HTTP/1.1\r\nHost: localhost\r\n"
                                "Content-Type: application/json\r\nContent-Length: 11\r\n"
                                "Authorization: Bearer " +
                                std::string(kToken) + "\r\n\r\n{\"value\":1}";

    EXPECT_TRUE(wait_until(
        [&] {
            client.forget();
            return client.send(request) && client.wait_for("}\n") &&
                   client.received().find("HTTP/1.1 503 ") != std::string::npos;
        },
        kDeadlineToFill));

    EXPECT_THAT(client.received(), HasSubstr("a process does not read its notices"));
    EXPECT_EQ(web.get("/healthz").status, 200);
}

} // namespace
