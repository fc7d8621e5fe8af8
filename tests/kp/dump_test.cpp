#include "kp_run.h"

#include "testing/process.h"
#include "testing/segment_file.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

using namespace kptest;

namespace {

void put_every_type()
{
    put("t/bool", KP_TYPE_BOOLEAN, bytes_of(uint8_t{2})); // true, but not the usual byte
    put("t/i8", KP_TYPE_INT8, bytes_of(int8_t{-5}));
    put("t/i16", KP_TYPE_INT16, bytes_of(int16_t{-500}));
    put("t/i32", KP_TYPE_INT32, bytes_of(int32_t{-500'000}));
    put("t/i64", KP_TYPE_INT64, bytes_of(std::numeric_limits<int64_t>::min()));
    put("t/u8", KP_TYPE_UINT8, bytes_of(uint8_t{250}));
    put("t/u16", KP_TYPE_UINT16, bytes_of(uint16_t{65'000}));
    put("t/u32", KP_TYPE_UINT32, bytes_of(uint32_t{4'000'000'000}));
    put("t/u64", KP_TYPE_UINT64, bytes_of(std::numeric_limits<uint64_t>::max()));
    put("t/float", KP_TYPE_FLOAT, bytes_of(uint32_t{0x7FC01234})); // a NaN with bits of its own
    put("t/double", KP_TYPE_DOUBLE, bytes_of(-0.0));
    put("t/string", KP_TYPE_STRING, std::string("x\0\xff\n\"", 5));
    put("t/bytes", KP_TYPE_BYTEARRAY, std::string(4000, '\xa5'));
    put("t/raw\n\xfe", KP_TYPE_RAW, "\x1b[0m");
}

} // namespace

TEST(KpDump, IsRestoredBitByBit)
{
    put_every_type();
    const Ran dump = kp({"dump"});
    ASSERT_EQ(dump.code, 0);
    ASSERT_EQ(dump.err, "");
    std::filesystem::remove_all("/dev/shm/zu-kp");

    const Ran restore = kp({"restore"}, {.input = dump.out});

    EXPECT_EQ(restore.err, "");
    EXPECT_EQ(restore.code, 0);
    EXPECT_EQ(SegmentFile("t/float").bytes(at::value, 4), bytes_of(uint32_t{0x7FC01234}));
    EXPECT_EQ(SegmentFile("t/bool").u8(at::value), 2);
    EXPECT_EQ(SegmentFile("t/string").bytes(at::value, 5), std::string("x\0\xff\n\"", 5));
    EXPECT_EQ(SegmentFile("t/raw\n\xfe").bytes(at::value, 4), "\x1b[0m");
    EXPECT_EQ(SegmentFile("t/i8").u64(at::last_write_ts), kFutureUs);
    EXPECT_EQ(SegmentFile("t/i8").u64(at::source_ts), kFutureUs);
    const auto without_max = [](const std::string &lines) {
        return filtered(lines, {"jq", "-c", "del(.max)"});
    };
    EXPECT_EQ(without_max(kp({"dump"}).out), without_max(dump.out));
}

TEST(KpDump, KeepsQualityMaximumAndExtraInformation)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(shm, KP_TYPE_STRING, 77, 4'000'000'000);
    (void)kp_shm_write(shm, "x", 1, 5, 9, 6);
    const Ran dump = kp({"dump", "a"});
    (void)kp_shm_destroy(shm, "a", KP_ROLE_PROVIDER);
    ASSERT_FALSE(SegmentFile("a").exists());

    ASSERT_EQ(kp({"restore"}, {.input = dump.out}).code, 0);

    EXPECT_EQ(kp({"dump"}).out, filtered(dump.out, {"jq", "-c", ".providers = 0"}));
}

TEST(KpDump, DeclaresTopicsWithoutAValue)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(shm, KP_TYPE_INT32, 4, 1);
    const Ran dump = kp({"dump"});
    (void)kp_shm_destroy(shm, "a", KP_ROLE_PROVIDER);

    ASSERT_EQ(kp({"restore"}, {.input = dump.out}).code, 0);

    EXPECT_EQ(kp({"list", "-F", "%t %T %v"}).out, "a int32 -\n");
}

TEST(KpDump, SelectsByPattern)
{
    put_double("a/b", 1);
    put_double("c", 1);

    EXPECT_EQ(filtered(kp({"dump", "a/#"}).out, {"jq", "-r", ".topic"}), "a/b\n");
    EXPECT_EQ(kp({"dump", "nothing/#"}).code, 1);
}

TEST(KpRestore, TakesAFile)
{
    put_double("a", 1);
    std::ofstream("/run/dump") << kp({"dump"}).out;
    std::filesystem::remove_all("/dev/shm/zu-kp");

    EXPECT_EQ(kp({"restore", "/run/dump"}).code, 0);
    EXPECT_EQ(kp({"get", "a"}).out, "1\n");
    EXPECT_EQ(kp({"restore", "/run/nothing"}).code, 1);
}

TEST(KpRestore, GoesOnPastABadLine)
{
    const std::string lines = "nonsense\n"
                              "{\"topic\":\"../x\",\"type\":\"int8\",\"value\":1}\n"
                              "{\"topic\":\"a\",\"type\":\"int8\",\"value_b64\":\"AAA=\"}\n"
                              "{\"topic\":\"b\",\"type\":\"int8\",\"value\":1,\"ts\":-1}\n"
                              "{\"topic\":\"c\",\"type\":\"quark\",\"value\":1}\n"
                              "{\"topic\":\"d\",\"type\":\"int8\",\"value\":1}\n";

    const Ran ran = kp({"restore"}, {.input = lines});

    EXPECT_EQ(ran.err, "kp: line 1: not a JSON object\n"
                       "kp: line 2: \"../x\" is not a topic: a level is \"..\"\n"
                       "kp: line 3: a: 2 bytes are no int8\n"
                       "kp: line 4: \"ts\" is not a number in its range\n"
                       "kp: line 5: \"quark\" is not a type\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(kp({"get", "#"}).out, "d\t1\n");
}

TEST(KpRestore, StampsWithTheCurrentTimeWhenAsked)
{
    put_double("a", 1);
    const std::string dump = kp({"dump"}).out;

    ASSERT_EQ(kp({"restore", "--now"}, {.input = dump}).code, 0);

    EXPECT_LT(SegmentFile("a").u64(at::last_write_ts), kFutureUs);
    EXPECT_EQ(SegmentFile("a").u64(at::source_ts), kFutureUs);
}

TEST(KpRm, RemovesATopicThatNobodyHasOpen)
{
    put_double("a/b", 1);
    SegmentFile("short").create(3);

    EXPECT_EQ(kp({"rm", "a/b", "short"}).code, 0);

    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_FALSE(SegmentFile("short").exists());
}

TEST(KpRm, KeepsATopicThatSomebodyMaps)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_CONSUMER);

    const Ran kept = kp({"rm", "a"});

    EXPECT_THAT(kept.err, testing::StartsWith("kp: a: in use by " + std::to_string(getpid())));
    EXPECT_EQ(kept.code, 5);
    EXPECT_TRUE(SegmentFile("a").exists());
    EXPECT_EQ(kp({"rm", "-f", "a"}).code, 0);
    EXPECT_FALSE(SegmentFile("a").exists());
    (void)kp_shm_destroy(shm, "a", KP_ROLE_CONSUMER);
}

TEST(KpRm, KeepsWhatItHasNoDescriptorsLeftToLookInto)
{
    constexpr int topics = 100;
    std::vector<kp_shm_t *> open;
    for (int number = 0; number < topics; ++number)
        open.push_back(kp_shm_new(std::to_string(number).c_str(), KP_ROLE_PROVIDER));

    const Ran ran = run_program({"sh", "-c", "ulimit -n 40; exec '" KP_PROGRAM "' rm '#'"});

    EXPECT_EQ(ran.code, 5);
    for (int number = 0; number < topics; ++number) {
        EXPECT_TRUE(SegmentFile(std::to_string(number)).exists()) << number;
        (void)kp_shm_destroy(open[static_cast<std::size_t>(number)], std::to_string(number).c_str(),
                             KP_ROLE_PROVIDER);
    }
}

TEST(KpRm, RefusesDirectoriesAndWhatIsNotThere)
{
    put_double("a/b", 1);

    EXPECT_EQ(kp({"rm", "a"}).err, "kp: a: not a topic, others lie below it\n");
    EXPECT_EQ(kp({"rm", "missing"}).code, 1);
    EXPECT_EQ(kp({"rm", "../x"}).code, 2);
    EXPECT_TRUE(SegmentFile("a/b").exists());
}

TEST(KpRestore, ReportsAnInputThatCannotBeRead)
{
    const Ran ran = kp({"restore", "/run"});

    EXPECT_EQ(ran.err, "kp: /run: Is a directory\n");
    EXPECT_EQ(ran.code, 4);
    EXPECT_EQ(run_program({"bash", "-c", "'" KP_PROGRAM "' restore </run"}).err,
              "kp: standard input: Is a directory\n");
    EXPECT_EQ(run_program({"bash", "-c", "'" KP_PROGRAM "' set --batch </run"}).code, 4);
}

TEST(KpRestore, NamesALineThatIsTooLongAndLeavesOutTheRest)
{
    const std::string first = R"({"topic":"a","type":"int8","value":1})"
                              "\n";
    const std::string rest = "line 2 is longer than any record, so it and the rest are left out\n";

    const Ran endless = kp({"restore", "/dev/zero"});
    const Ran replay = kp({"replay", "--peer-wait", "0", "/dev/zero"});
    const Ran second = kp({"restore"}, {.input = first + std::string(3 << 20, ' ') + "\n" + first});
    const Ran batch =
        kp({"set", "--batch", "--peer-wait", "0"}, {.input = first + std::string(3 << 20, ' ')});

    EXPECT_EQ(endless.err, "kp: /dev/zero: line 1 is longer than any record, so it and the rest "
                           "are left out\n");
    EXPECT_EQ(endless.code, 2);
    EXPECT_EQ(replay.err, endless.err);
    EXPECT_EQ(replay.code, 2);
    EXPECT_EQ(second.err, "kp: standard input: " + rest);
    EXPECT_EQ(second.code, 2);
    EXPECT_EQ(batch.err, "kp: standard input: " + rest);
    EXPECT_EQ(kp({"get", "a"}).out, "1\n");
}

TEST(KpRestore, SaysWhatIsWrongWithANameWithAZeroByte)
{
    const std::string text = R"({"topic":"a\u0000b","type":"int8","value":1})";
    const std::string bytes = R"({"topic_b64":"YQBi","type":"int8","value":1})";
    const std::string message = "\"a\\x00b\" is not a topic: a level holds a zero byte\n";

    const Ran ran = kp({"restore"}, {.input = text + "\n" + bytes + "\n" + R"({"value":1})"});

    EXPECT_EQ(ran.err, "kp: line 1: " + message + "kp: line 2: " + message +
                           "kp: line 3: \"topic\" is missing\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(kp({"list"}).out, "");
}

TEST(KpRestore, BringsBackTheMaximumOfATopicWhenForced)
{
    const std::string line = R"({"topic":"m","type":"string","max":20,"value":"0123456789abcde"})";
    ASSERT_EQ(kp({"restore"}, {.input = R"({"topic":"m","type":"string","max":10})"}).code, 0);

    EXPECT_EQ(kp({"restore"}, {.input = line}).code, 2);
    EXPECT_EQ(SegmentFile("m").u32(at::max_value_size), 10U);
    EXPECT_EQ(kp({"restore", "--force"}, {.input = line}).code, 0);
    EXPECT_EQ(SegmentFile("m").u32(at::max_value_size), 20U);
    EXPECT_EQ(kp({"get", "m"}).out, "0123456789abcde\n");
}

TEST(KpRestore, KeepsAMaximumOfZero)
{
    put_double("number", 1);
    put_text("text", "x"); // as instant writes leave them
    const std::string dumped = kp({"dump"}).out;
    ASSERT_EQ(filtered(dumped, {"jq", "-c", ".max"}), "0\n0\n");
    std::filesystem::remove_all("/dev/shm/zu-kp");

    ASSERT_EQ(kp({"restore"}, {.input = dumped}).code, 0);

    EXPECT_EQ(kp({"dump"}).out, dumped);
}
