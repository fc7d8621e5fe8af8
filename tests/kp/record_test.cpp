// record and replay, and export.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <sys/time.h>

using namespace kptest;
using namespace std::chrono_literals;

namespace {

constexpr const char *kRecord = "/run/record.jsonl";

// Gives a line as record prints it, for a change so many milliseconds after the first.
std::string recorded(const std::string &topic, int value, int seen_ms)
{
    return R"({"topic":")" + topic + R"(","type":"int32","value":)" + std::to_string(value) +
           R"(,"quality":7,"ts":1700000000000000,"source_ts":1699999999000000,"seen":)" +
           std::to_string(1'700'000'000'000'000 + static_cast<int64_t>(seen_ms) * 1000) + "}\n";
}

uint64_t microseconds_now()
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
}

std::chrono::milliseconds time_of(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

} // namespace

TEST(KpRecord, PrintsWhatIsThereAndEachChangeWithTheTimeAtWhichItWasSeen)
{
    put_text("a", "x\xff");
    const uint64_t before = microseconds_now();
    ChildProcess record(std::vector<std::string>{KP_PROGRAM, "record", "#", "--rate", "200"});

    const std::string first = record.hear().value_or("");
    put_double("b", 2);
    const std::string second = record.hear().value_or("");

    EXPECT_EQ(filtered(first + "\n" + second, {"jq", "-c", "[.topic,.type,.value_b64]"}),
              "[\"a\",\"string\",\"eP8=\"]\n[\"b\",\"double\",\"AAAAAAAAAEA=\"]\n");
    EXPECT_EQ(filtered(first + "\n" + second, {"jq", "-s",
                                               ".[0].seen >= " + std::to_string(before) +
                                                   " and .[1].seen >= .[0].seen and .[1].seen <= " +
                                                   std::to_string(microseconds_now())}),
              "true\n");
}

TEST(KpReplay, WritesBackWhatWasRecordedWithThePresentTime)
{
    put_text("a", "x\xff");
    put("b", KP_TYPE_DOUBLE, bytes_of(std::numeric_limits<double>::quiet_NaN()));
    const Ran record = kp({"record", "#", "-n", "2"});
    ASSERT_EQ(record.code, 0) << record.err;
    SegmentFile("a").remove();
    SegmentFile("b").remove();
    const uint64_t before = microseconds_now();

    const Ran replay = kp({"replay", "--peer-wait", "0"}, {.input = record.out});

    EXPECT_EQ(replay.out + replay.err, "");
    EXPECT_EQ(replay.code, 0);
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 2), "x\xff");
    EXPECT_EQ(SegmentFile("b").bytes(at::value, 8),
              bytes_of(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_GE(SegmentFile("a").u64(at::last_write_ts), before);
    EXPECT_LE(SegmentFile("a").u64(at::last_write_ts), microseconds_now());
}

TEST(KpReplay, KeepsTheQualityAndTheAgeOfTheSource)
{
    ASSERT_EQ(kp({"replay"}, {.input = recorded("a", 1, 0)}).code, 0);

    const SegmentFile file("a");
    EXPECT_EQ(file.u8(at::quality), 7);
    EXPECT_EQ(file.u64(at::last_write_ts) - file.u64(at::source_ts), 1'000'000U);
}

TEST(KpReplay, KeepsThePaceOfTheRecord)
{
    std::ofstream(kRecord) << recorded("a", 1, 0) << recorded("a", 2, 400);
    EXPECT_GE(time_of([] { ASSERT_EQ(kp({"replay", kRecord}).code, 0); }), 400ms);
    EXPECT_EQ(kp({"get", "a"}).out, "2\n");

    std::ofstream(kRecord) << recorded("a", 3, 0) << recorded("a", 4, 60'000);
    EXPECT_LT(time_of([] { ASSERT_EQ(kp({"replay", "--speed", "0", kRecord}).code, 0); }), 60s);
    EXPECT_EQ(kp({"get", "a"}).out, "4\n");
}

TEST(KpReplay, ShowsEachValueToTheReadersThatAreRunning)
{
    ChildProcess watch(std::vector<std::string>{KP_PROGRAM, "watch", "#", "--rate", "500"});
    ChildProcess replay(std::vector<std::string>{KP_PROGRAM, "replay", "--peer-wait", "0"});

    (void)replay.tell(R"({"topic":"a","type":"int32","value":1})");
    EXPECT_EQ(watch.hear(), "a\t1");
    (void)replay.tell(R"({"topic":"a","type":"int32","value":2})");
    EXPECT_EQ(watch.hear(), "a\t2");
    (void)replay.tell(R"({"topic":"b","type":"int32","value":3})");
    EXPECT_EQ(watch.hear(), "b\t3");
}

TEST(KpReplay, TellsThePeersAtEachStep)
{
    std::atomic<int> notices = 0;
    kp_t *handle = kp_new("application", [](kp_t *, const kp_write_info *, void *count) {
        ++*static_cast<std::atomic<int> *>(count);
        return 0;
    });
    (void)kp_set_user_data(handle, &notices);
    // A step that is over before the first one is stored would be told of with it.
    constexpr int kStepMs = 3'000;
    std::ofstream(kRecord) << recorded("a", 1, 0) << recorded("b", 1, 0)
                           << recorded("a", 2, kStepMs);

    EXPECT_EQ(kp({"replay", "--peer-wait", "20", kRecord}).code, 0);

    EXPECT_TRUE(wait_until([&] { return notices >= 2; }));
    EXPECT_EQ(notices, 2);
    (void)kp_destroy(handle);
}

TEST(KpReplay, FollowsAPipeThatGoesOn)
{
    ChildProcess replay(std::vector<std::string>{KP_PROGRAM, "replay", "--peer-wait", "0"});

    ASSERT_TRUE(replay.tell(R"({"topic":"a","type":"int32","value":1})"));
    EXPECT_TRUE(wait_until([] { return kp({"get", "a"}).out == "1\n"; }));
    ASSERT_TRUE(replay.tell(R"({"topic":"a","type":"int32","value":2})"));
    EXPECT_TRUE(wait_until([] { return kp({"get", "a"}).out == "2\n"; }));

    replay.signal(SIGTERM);
    EXPECT_EQ(replay.wait(), 128 + SIGTERM);
    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
}

TEST(KpReplay, NamesTheLinesThatItCannotWriteAndGoesOn)
{
    const Ran ran = kp({"replay", "--peer-wait", "0"},
                       {.input = "nonsense\n\n" + recorded("a/../b", 1, 0) + recorded("c", 1, 0) +
                                 R"({"topic":"d","type":"int32","value":1,"seen":"soon"})"});

    EXPECT_EQ(ran.err, "kp: line 1: not a JSON object\n"
                       "kp: line 3: \"a/../b\" is not a topic: a level is \"..\"\n"
                       "kp: line 5: \"seen\" is not a number in its range\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(kp({"get", "#"}).out, "c\t1\n");
    EXPECT_EQ(kp({"replay", "/run/missing"}).err, "kp: /run/missing: No such file or directory\n");
    EXPECT_EQ(kp({"replay", "/run"}).err, "kp: /run: Is a directory\n");
}

TEST(KpExport, GivesNumbersAsMetrics)
{
    put_double("plant/speed", 21.5);
    put("plant/on", KP_TYPE_BOOLEAN, bytes_of(uint8_t{1}));
    put("plant/count", KP_TYPE_UINT64, bytes_of(std::numeric_limits<uint64_t>::max()));
    put_text("plant/na\"me\\", "north");
    put_double("x/inf", -std::numeric_limits<double>::infinity());
    put_double("x/nan", -std::numeric_limits<double>::quiet_NaN());

    const Ran ran = kp({"export", "--prometheus", "plant/#"});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.out,
              R"(# HELP zu_kp_value The latest value of a topic of numbers or booleans.
# TYPE zu_kp_value gauge
zu_kp_value{topic="plant/count"} 18446744073709551615
zu_kp_value{topic="plant/on"} 1
zu_kp_value{topic="plant/speed"} 21.5
# HELP zu_kp_quality The quality of the value, 0 for none and 1 for good.
# TYPE zu_kp_quality gauge
zu_kp_quality{topic="plant/count"} 1
zu_kp_quality{topic="plant/na\"me\\\\"} 1
zu_kp_quality{topic="plant/on"} 1
zu_kp_quality{topic="plant/speed"} 1
# HELP zu_kp_write_timestamp_seconds When the value was written, since 1970.
# TYPE zu_kp_write_timestamp_seconds gauge
zu_kp_write_timestamp_seconds{topic="plant/count"} 4102444800.123456
zu_kp_write_timestamp_seconds{topic="plant/na\"me\\\\"} 4102444800.123456
zu_kp_write_timestamp_seconds{topic="plant/on"} 4102444800.123456
zu_kp_write_timestamp_seconds{topic="plant/speed"} 4102444800.123456
# HELP zu_kp_providers Handles that are open to provide the topic.
# TYPE zu_kp_providers gauge
zu_kp_providers{topic="plant/count"} 0
zu_kp_providers{topic="plant/na\"me\\\\"} 0
zu_kp_providers{topic="plant/on"} 0
zu_kp_providers{topic="plant/speed"} 0
# HELP zu_kp_consumers Handles that are open to consume the topic.
# TYPE zu_kp_consumers gauge
zu_kp_consumers{topic="plant/count"} 0
zu_kp_consumers{topic="plant/na\"me\\\\"} 0
zu_kp_consumers{topic="plant/on"} 0
zu_kp_consumers{topic="plant/speed"} 0
)");
    EXPECT_THAT(kp({"export", "--prometheus", "x/#"}).out,
                testing::HasSubstr("zu_kp_value{topic=\"x/inf\"} -Inf\n"
                                   "zu_kp_value{topic=\"x/nan\"} NaN\n"));
    EXPECT_EQ(kp({"export", "--prometheus", "missing"}).code, 1);
    EXPECT_EQ(kp({"export"}).code, 2);
}
