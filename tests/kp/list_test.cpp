#include "kp_run.h"

#include "testing/segment_file.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;

TEST(KpList, FindsNothingInAStoreThatDoesNotExist)
{
    const Ran ran = kp({"list"});

    EXPECT_EQ(ran.code, 1);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "");
}

TEST(KpList, ShowsTopicsOfAnyDepthSorted)
{
    put_double("b", 1);
    put_double("a/b/c/d/e/f", 1);
    put_double("a.b", 1);
    put_double("a/x", 1);

    const Ran ran = kp({"list"});

    EXPECT_EQ(ran.out, "a.b\na/b/c/d/e/f\na/x\nb\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpList, SelectsByPatternAsTheLibraryDoes)
{
    put_double("a/b/c", 1);
    put_double("a/b/d", 1);
    put_double("a/c", 1);
    put_double("x/b/c", 1);

    EXPECT_EQ(kp({"list", "a/+/c"}).out, "a/b/c\n");
    EXPECT_EQ(kp({"ls", "a/#"}).out, "a/b/c\na/b/d\na/c\n");
    EXPECT_EQ(kp({"list", "/a//b/+/"}).out, "a/b/c\na/b/d\n");
    EXPECT_EQ(kp({"list", "+x/b/c"}).out, "a/b/c\nx/b/c\n");
    EXPECT_EQ(kp({"list", "#", "-x", "a/#"}).out, "x/b/c\n");
    EXPECT_EQ(kp({"list", "a/c", "x/#"}).out, "a/c\nx/b/c\n");
    EXPECT_EQ(kp({"list", "a"}).code, 1);
}

TEST(KpList, LongFormShowsEveryColumn)
{
    put_double("plant/pump/speed", 21.5);
    put_text("plant/name", "north");
    kp_shm_t *provider = kp_shm_new("plant/state", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(provider, KP_TYPE_BOOLEAN, 1, 0);
    kp_shm_t *consumer = kp_shm_new("plant/waiting", KP_ROLE_CONSUMER);

    const Ran ran = kp({"list", "-l"});

    EXPECT_EQ(ran.out, "TOPIC             TYPE     VALUE  QUALITY     AGE  PROVIDERS  CONSUMERS\n"
                       "plant/name        string   north        1  future          0          0\n"
                       "plant/pump/speed  double   21.5         1  future          0          0\n"
                       "plant/state       boolean  -            0       -          1          0\n"
                       "plant/waiting     -        -            0       -          0          1\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    (void)kp_shm_destroy(provider, "plant/state", KP_ROLE_PROVIDER);
    (void)kp_shm_destroy(consumer, "plant/waiting", KP_ROLE_CONSUMER);
}

TEST(KpList, TreeShowsEachLevelOnce)
{
    put_double("a/b/c", 1);
    put_double("a/b/d", 1);
    put_double("e", 1);

    EXPECT_EQ(kp({"list", "--tree"}).out, "a/\n  b/\n    c\n    d\ne\n");
}

TEST(KpList, PrintsJsonWithItsFixedKeys)
{
    put_double("a/b", 21.5);

    EXPECT_EQ(kp({"list", "-j"}).out,
              "{\"topic\":\"a/b\",\"type\":\"double\",\"value\":21.5,\"quality\":1,"
              "\"ts\":4102444800123456,\"time\":\"2100-01-01T00:00:00.123456Z\","
              "\"source_ts\":4102444800123456,\"size\":8,\"max\":0,\"extra\":0,"
              "\"flags\":[\"valid\",\"value\"],\"providers\":0,\"consumers\":0}\n");
}

TEST(KpList, PrintsCsvAndTsvWithOneHeader)
{
    put_text("a", "x,\"y\"");
    put_double("b", -0.5);

    EXPECT_EQ(
        kp({"list", "--format", "csv"}).out,
        "topic,type,value,quality,ts,time,source_ts,size,max,extra,flags,providers,consumers\n"
        "a,string,\"x,\"\"y\"\"\",1,4102444800123456,2100-01-01T00:00:00.123456Z,"
        "4102444800123456,5,0,0,valid value,0,0\n"
        "b,double,-0.5,1,4102444800123456,2100-01-01T00:00:00.123456Z,"
        "4102444800123456,8,0,0,valid value,0,0\n");
    EXPECT_THAT(kp({"list", "--format", "tsv"}).out,
                testing::HasSubstr("\nb\tdouble\t-0.5\t1\t4102444800123456\t"));
}

TEST(KpList, GoesOnPastFilesThatAreNoSegments)
{
    put_double("good", 1);
    SegmentFile("empty").create(0);
    SegmentFile("long").create(5000);
    SegmentFile("short").create(76);
    ASSERT_EQ(symlink("good", "/dev/shm/zu-kp/link"), 0);

    const Ran ran = kp({"list"});

    EXPECT_EQ(ran.out, "good\n");
    EXPECT_EQ(ran.err, "kp: empty: not a segment (0 bytes instead of 4080)\n"
                       "kp: link: not a segment (a symbolic link)\n"
                       "kp: long: not a segment (5000 bytes instead of 4080)\n"
                       "kp: short: not a segment (76 bytes instead of 4080)\n");
    EXPECT_EQ(ran.code, 4);
}

TEST(KpList, FollowsNoDirectoryLinkOutOfTheStore)
{
    std::filesystem::create_directories("/dev/shm/elsewhere");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    SegmentFile("../elsewhere/secret").create();
    ASSERT_EQ(symlink("/dev/shm/elsewhere", "/dev/shm/zu-kp/door"), 0);

    EXPECT_EQ(kp({"list"}).out, "");
    EXPECT_EQ(kp({"get", "door/secret"}).code, 4);
}

TEST(KpList, EscapesControlCharactersOfNamesAndValues)
{
    put_text("a\nb\x1b[31m", "x\ty\x1b]0;title\x07\\");

    const Ran ran = kp({"list", "-l"});

    EXPECT_THAT(ran.out,
                testing::HasSubstr("a\\nb\\x1b[31m  string  x\\ty\\x1b]0;title\\x07\\\\  "));
    EXPECT_THAT(kp({"list", "-j"}).out,
                testing::HasSubstr("{\"topic\":\"a\\nb\\u001b[31m\",\"type\":\"string\","
                                   "\"value\":\"x\\ty\\u001b]0;title\\u0007\\\\\""));
}

TEST(KpList, TellsOfADirectoryWithoutPermissionAndShowsTheRest)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("open/a", 1);
    put_double("closed/b", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/closed", 0700), 0);

    const Ran ran = kp({"list"}, {.uid = user});

    EXPECT_EQ(ran.out, "open/a\n");
    EXPECT_EQ(ran.err, "kp: closed: Permission denied\n");
    EXPECT_EQ(ran.code, 3);
}

TEST(KpList, ColoursOnlyWhenAsked)
{
    SegmentFile spoiled("spoiled");
    put_double("spoiled", 1);
    spoiled.put_u32(at::value_type, 99);

    EXPECT_THAT(kp({"list", "-l"}).out, testing::Not(testing::HasSubstr("\x1b")));
    EXPECT_THAT(kp({"list", "-l", "--color", "always"}).out,
                testing::HasSubstr("\x1b[31mspoiled  -     (corrupt)"));
    EXPECT_THAT(kp({"list", "-l"}, {.environment = {"CLICOLOR_FORCE=1"}}).out,
                testing::HasSubstr("\x1b[31m"));
    EXPECT_THAT(kp({"list", "-l"}, {.environment = {"CLICOLOR_FORCE=1", "NO_COLOR=1"}}).out,
                testing::Not(testing::HasSubstr("\x1b")));
    EXPECT_THAT(kp({"list", "-j", "--color", "always"}).out,
                testing::Not(testing::HasSubstr("\x1b")));
}

TEST(KpList, EndsQuietlyWhenItsReaderGoesAway)
{
    for (int index = 0; index < 10'000; ++index)
        put_double("plant/" + std::to_string(index % 100) + "/sensor/" + std::to_string(index), 1);

    const Ran ran = kp({"list", "-j"}, {.close_output_after = 1});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpList, ShowsTenThousandTopics)
{
    for (int index = 0; index < 10'000; ++index)
        put_double("plant/" + std::to_string(index % 100) + "/sensor/" + std::to_string(index),
                   index);

    const Ran names = kp({"list"});
    const Ran values = kp({"get", "#", "-T"});

    EXPECT_EQ(std::count(names.out.begin(), names.out.end(), '\n'), 10'000);
    EXPECT_EQ(std::count(values.out.begin(), values.out.end(), '\n'), 10'000);
    EXPECT_THAT(kp({"get", "plant/42/#"}).out, testing::HasSubstr("plant/42/sensor/4242\t4242\n"));
}

TEST(KpList, RefusesFormatsThatItDoesNotHave)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"list", "--tree", "-j"}).code, 2);
    EXPECT_EQ(kp({"list", "--tree", "-l"}).code, 2);
    EXPECT_EQ(kp({"info", "a", "--format", "csv"}).err,
              "kp: info has the formats plain and json; get has the others\n");
}

TEST(KpList, RefusesAnUnknownOption)
{
    const Ran ran = kp({"list", "--nonsense"});

    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err, testing::HasSubstr("--nonsense"));
    EXPECT_EQ(ran.code, 2);
}

TEST(KpList, KeepsEachRowOfTheLongFormOnOneLineOfTheTerminal)
{
    const std::string name = "plant/" + std::string(100, 'x');
    put_text(name, std::string(60, 'v'));

    const Ran ran = run_program(
        {"script", "-qec", "stty cols 80; '" KP_PROGRAM "' --color never list -l", "/dev/null"});

    std::istringstream lines(ran.out);
    std::size_t widest = 0;
    for (std::string line; std::getline(lines, line);)
        widest = std::max(widest, line.size() - (line.ends_with('\r') ? 1 : 0));
    EXPECT_LE(widest, 80U + 4U) << ran.out; // two ellipses take three bytes each
    EXPECT_NE(kp({"list", "-l"}).out.find(name), std::string::npos);
}
