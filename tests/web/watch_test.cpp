// What a client that follows topics gets over a real connection.
#include "testing/store_provider.h"
#include "web/client.h"
#include "web/web_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::HasSubstr;
using testing::Not;

namespace {

class WebWatch : public testing::Test {
  protected:
    WebWatch()
    {
        tag_.write(bytes_of<int32_t>(1), 1000);
    }

    StoreProvider tag_{"plant/tag", KP_TYPE_INT32};
};

TEST_F(WebWatch, GivesTheValueThereIsAndEachNewest)
{
    const WebProgram web;
    Client client(web.port());

    ASSERT_TRUE(client.ask("/watch?q=plant/%23"));
    ASSERT_TRUE(client.wait_for("event: current"));
    EXPECT_THAT(client.received(), HasSubstr("Content-Type: text/event-stream"));
    EXPECT_THAT(client.received(), HasSubstr("\"value\":1,"));
    tag_.write(bytes_of<int32_t>(2), 2000);
    EXPECT_TRUE(client.wait_for("\"value\":2,"));
}

TEST_F(WebWatch, IsUnderstoodByCurl)
{
    const WebProgram web;

    const Got got = web.get("/watch?q=plant/tag", {"--no-buffer", "--max-time", "1"});

    EXPECT_EQ(got.status, 200);
    EXPECT_THAT(got.body, HasSubstr("retry: 2000\n\n"));
    EXPECT_THAT(got.body,
                HasSubstr("\ndata: {\"topic\":\"plant/tag\",\"type\":\"int32\",\"value\":1,"));
}

TEST_F(WebWatch, TellsOfNewTopicsAndOfThoseThatGo)
{
    const WebProgram web;
    Client client(web.port());
    ASSERT_TRUE(client.ask("/watch"));
    ASSERT_TRUE(client.wait_for("event: current"));

    StoreProvider second("plant/second", KP_TYPE_STRING);
    second.write("here", 1000);
    EXPECT_TRUE(client.wait_for("\"value\":\"here\""));
    EXPECT_TRUE(client.wait_for("event: topics"));
    second.leave();
    EXPECT_TRUE(client.wait_for("event: gone\ndata: {\"topic\":\"plant/second\"}"));
}

TEST_F(WebWatch, GoesOnAfterABrokenConnection)
{
    const WebProgram web;
    std::string id;
    {
        Client broken(web.port());
        ASSERT_TRUE(broken.ask("/watch"));
        ASSERT_TRUE(broken.wait_for("event: current"));
        const std::string text = broken.received();
        const std::size_t at = text.find("id: ") + 4;
        id = text.substr(at, text.find('\n', at) - at);
    }
    StoreProvider second("plant/second", KP_TYPE_STRING);
    second.write("missed", 1000);
    Client client(web.port());
    ASSERT_TRUE(client.ask("/watch", "Last-Event-ID: " + id + "\r\n"));

    ASSERT_TRUE(client.wait_for("\"value\":\"missed\""));
    ASSERT_TRUE(client.wait_for("event: current"));
    EXPECT_THAT(client.received(), Not(HasSubstr("plant/tag")));
    EXPECT_THAT(client.received(), Not(HasSubstr("event: reset")));
}

TEST_F(WebWatch, IsCutByAReloadAndComesBack)
{
    const WebProgram web;
    Client client(web.port());
    ASSERT_TRUE(client.ask("/watch"));
    ASSERT_TRUE(client.wait_for("event: current"));

    web.configure("hide = [\"plant/tag\"]\n");
    web.signal(SIGHUP);
    EXPECT_TRUE(client.wait_for_end());
    EXPECT_TRUE(web.wait_for_log("has read its configuration again"));
    EXPECT_EQ(web.get("/tags").body, "");
}

} // namespace
