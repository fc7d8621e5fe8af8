// What clients get of the device itself: its endpoints and the findings of the doctor.
#include "testing/store_provider.h"
#include "web/web_program.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kptest;
using testing::HasSubstr;

namespace {

TEST(WebDevice, ShowsTheEndpointsWithTheKeysOfKp)
{
    kp_t *handle = kp_new("press", nullptr);
    const WebProgram web;

    const Got got = web.get("/peers");

    EXPECT_EQ(got.status, 200);
    EXPECT_THAT(got.body, HasSubstr("{\"name\":\"press\",\"state\":\"live\",\"pid\":"));
    EXPECT_THAT(lines_of(got.body), testing::SizeIs(1)); // the server itself is no endpoint
    (void)kp_destroy(handle);
}

TEST(WebDevice, TellsWhatTheDoctorFinds)
{
    const StoreProvider healthy("plant/tag", KP_TYPE_INT32);
    std::ofstream("/dev/shm/zu-kp/plant/planted") << "no segment";
    const WebProgram web;

    const Got got = web.get("/doctor");

    EXPECT_EQ(got.status, 200);
    EXPECT_THAT(got.body, HasSubstr("\"subject\":\"plant/planted\""));
}

TEST(WebDevice, TellsTheMistakesInTheDictionaryAsKpDoctorDoes)
{
    std::filesystem::create_directory("/run/tags.d");
    std::ofstream("/run/tags.d/a.toml") << "[\"plant/speed\"]\nrange = 40\n";
    const WebProgram web("dictionary = \"/run/tags.d\"\n");

    const Got got = web.get("/doctor");

    EXPECT_THAT(got.body,
                HasSubstr("\"check\":\"dictionary\",\"subject\":\"/run/tags.d/a.toml:2:9\""));
}

TEST(WebDevice, AnswersManyWhoAskAtOnce)
{
    const WebProgram web;

    for (int round = 0; round < 20; ++round)
        EXPECT_EQ(web.get("/doctor").status, 200);
    EXPECT_EQ(web.get("/healthz").status, 200);
}

TEST(WebDevice, ServesThePageAndNothingElseOfItsFolder)
{
    const WebProgram web("page = \"" KP_WEB_PAGE_FOLDER "\"\n");

    EXPECT_THAT(web.get("/").headers, HasSubstr("Content-Type: text/html"));
    EXPECT_THAT(web.get("/").body, HasSubstr("<title>Tags</title>"));
    EXPECT_THAT(web.get("/main.js").headers, HasSubstr("Content-Type: text/javascript"));
    for (const char *path : {"/../kp-web.service", "/%2e%2e/main.cpp", "/page", "/index.html/",
                             "//etc/passwd", "/lib/../main.js"})
        EXPECT_EQ(web.get(path).status, 404) << path;
}

TEST(WebDevice, SaysWhereThePageIsMissing)
{
    const WebProgram web("page = \"/run/none\"\n");

    EXPECT_EQ(web.get("/").body, "{\"error\":\"the files of the page are not in /run/none\"}\n");
}

} // namespace
