// What programs get, which is values, lists and metrics; and who may ask.
#include "testing/store_provider.h"
#include "web/client.h"
#include "web/web_program.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace {

class WebTags : public testing::Test {
  protected:
    WebTags()
    {
        speed_.write(bytes_of(21.5), 1'700'000'000'123'456, 1, 1'700'000'000'000'000);
        name_.write("press", 1'700'000'000'123'456);
    }

    StoreProvider speed_{"plant/press/speed", KP_TYPE_DOUBLE};
    StoreProvider name_{"plant/press/name", KP_TYPE_STRING};
};

TEST_F(WebTags, GiveOneTopicWithTheKeysOfKp)
{
    const WebProgram web;

    const Got got = web.get("/tags/plant/press/speed");

    EXPECT_EQ(got.status, 200);
    EXPECT_THAT(got.headers, HasSubstr("Content-Type: application/json"));
    EXPECT_EQ(got.body,
              "{\"topic\":\"plant/press/speed\",\"type\":\"double\",\"value\":21.5,\"quality\":1,"
              "\"ts\":1700000000123456,\"time\":\"2023-11-14T22:13:20.123456Z\","
              "\"source_ts\":1700000000000000,\"size\":8,\"max\":8,\"extra\":7,"
              "\"flags\":[\"valid\",\"value\"],\"providers\":1,\"consumers\":0}\n");
}

TEST_F(WebTags, AreListedByPatternsAndWithoutThem)
{
    const WebProgram web;

    EXPECT_THAT(lines_of(web.get("/tags").body), SizeIs(2));
    EXPECT_THAT(lines_of(web.get("/tags?q=plant/+/name").body), SizeIs(1));
    EXPECT_THAT(lines_of(web.get("/tags?q=plant/%23&x=%2B/%2B/name").body), SizeIs(1));
    EXPECT_THAT(lines_of(web.get("/tags?q=plant/press/name&q=plant/press/speed").body), SizeIs(2));
    EXPECT_EQ(web.get("/tags?q=none/%23").body, "");
    EXPECT_EQ(web.get("/topics?q=plant/press/name").body, "{\"topic\":\"plant/press/name\"}\n");
}

TEST_F(WebTags, AreRefusedWithTheReason)
{
    const WebProgram web("[limits]\ntopics = 2\n");

    EXPECT_EQ(web.get("/tags/none").status, 404);
    EXPECT_THAT(web.get("/tags/none").body, HasSubstr("{\"error\":\"none: no such topic"));
    EXPECT_EQ(web.get("/tags/a/../b").status, 400);
    EXPECT_EQ(web.get("/tags/a%zz").status, 400);
    EXPECT_EQ(web.get("/tags?q=a&q=b&q=c").body,
              "{\"error\":\"more than 2 topics and patterns\"}\n");
    EXPECT_EQ(web.get("/nothing").status, 404);
    EXPECT_EQ(web.get("/tags", {"-X", "DELETE"}).status, 405);
    EXPECT_THAT(web.get("/tags", {"-X", "POST", "-d", "x"}).headers, HasSubstr("Allow: GET, HEAD"));
    EXPECT_EQ(web.get("/watch?rate=x").status, 400);
}

TEST_F(WebTags, ThatAreHiddenAreNowhere)
{
    const WebProgram web("show = [\"plant/#\"]\nhide = [\"plant/+/name\"]\n");

    EXPECT_THAT(lines_of(web.get("/tags").body), SizeIs(1));
    EXPECT_EQ(web.get("/tags/plant/press/name").status, 404);
    EXPECT_EQ(web.get("/tags/plant/press/speed").status, 200);
}

TEST_F(WebTags, AreNotShownToPagesOfElsewhere)
{
    const WebProgram web("hosts = [\"Press-7.example\"]\n");
    const std::string own = "localhost:" + std::to_string(web.port());

    EXPECT_EQ(web.get("/tags", {"-H", "Host: evil.example"}).status, 403);
    EXPECT_EQ(web.get("/tags", {"-H", "Host:"}).status, 403);
    EXPECT_EQ(web.get("/tags", {"-H", "Host: " + own}).status, 200);
    EXPECT_EQ(web.get("/tags", {"-H", "Host: press-7.example"}).status, 200);
    EXPECT_EQ(web.get("/tags", {"-H", "Host: " + own, "-H", "Origin: http://" + own}).status, 200);
    EXPECT_EQ(web.get("/tags", {"-H", "Host: " + own, "-H", "Origin: http://evil.example"}).status,
              403);
    EXPECT_EQ(web.get("/healthz", {"-H", "Host: evil.example"}).status, 403);
}

TEST_F(WebTags, SayInTheirHeadersWhatAPageMayDo)
{
    const WebProgram web;

    const Got got = web.get("/healthz");

    EXPECT_EQ(got.body, "ok\n");
    EXPECT_THAT(got.headers, HasSubstr("Content-Security-Policy: default-src 'none';"));
    EXPECT_THAT(got.headers, HasSubstr("X-Content-Type-Options: nosniff"));
    EXPECT_THAT(got.headers, Not(HasSubstr("Set-Cookie")));
    EXPECT_THAT(got.headers, Not(HasSubstr("Access-Control-Allow-Origin")));
}

TEST_F(WebTags, WithHostileNamesAreWritten)
{
    StoreProvider hostile("x/<script>alert(1)<\x01\xff", KP_TYPE_STRING);
    hostile.write("\"}\n\x1b[31m", 1000);
    const WebProgram web;

    const Got list = web.get("/tags?q=x/%23");
    const Got one = web.get("/tags/x/%3Cscript%3Ealert(1)%3C%01%FF");

    EXPECT_EQ(list.body, one.body);
    EXPECT_THAT(lines_of(list.body), SizeIs(1));
    EXPECT_THAT(list.body, HasSubstr("\"topic_b64\":"));
    EXPECT_TRUE(std::all_of(list.body.begin(), list.body.end(),
                            [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
}

TEST_F(WebTags, AreMetricsWhereTheConfigurationSaysSo)
{
    const WebProgram web("metrics = [\"plant/#\"]\n");

    const Got got = web.get("/metrics");

    EXPECT_THAT(got.headers,
                HasSubstr("Content-Type: application/openmetrics-text; version=1.0.0"));
    EXPECT_THAT(got.body, HasSubstr("zu_kp_value{topic=\"plant/press/speed\"} 21.5\n"));
    EXPECT_THAT(got.body, Not(HasSubstr("zu_kp_value{topic=\"plant/press/name\"}")));
    EXPECT_THAT(got.body, HasSubstr("\nzu_kp_topics 2\n"));
    EXPECT_THAT(got.body, HasSubstr("\nkp_web_requests_total 1\n"));
    EXPECT_TRUE(got.body.ends_with("\n# EOF\n"));
}

TEST_F(WebTags, GiveTheMetricsOfTheProgramAloneByDefault)
{
    const WebProgram web;

    EXPECT_THAT(web.get("/metrics").body, Not(HasSubstr("zu_kp_value")));
}

TEST_F(WebTags, AreNotTouchedByWhoLooks)
{
    const WebProgram web;
    (void)web.get("/tags");

    const Got got = web.get("/tags/plant/press/speed");

    EXPECT_THAT(got.body, HasSubstr("\"providers\":1,\"consumers\":0"));
}

TEST_F(WebTags, ComeInAnyNumber)
{
    std::vector<std::unique_ptr<StoreProvider>> many;
    for (int number = 0; number < 1000; ++number) {
        many.push_back(
            std::make_unique<StoreProvider>("many/t" + std::to_string(number), KP_TYPE_INT32));
        many.back()->write(bytes_of<int32_t>(number));
    }
    const WebProgram web;

    EXPECT_THAT(lines_of(web.get("/tags?q=many/%23").body), SizeIs(1000));
}

} // namespace
