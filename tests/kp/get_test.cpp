#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace kptest;

namespace {

int write_without_pause(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(shm, KP_TYPE_STRING, KP_MAX_VALUE_SIZE, 0);
    const std::string value(KP_MAX_VALUE_SIZE, 'x');
    (void)parent.tell("writing");
    for (uint64_t now_us = 1;; ++now_us)
        (void)kp_shm_write(shm, value.data(), KP_MAX_VALUE_SIZE, now_us, 1, now_us);
}

} // namespace

TEST(KpGet, PrintsOneTopicsValueAlone)
{
    put_double("a/b", 21.5);

    const Ran ran = kp({"get", "a/b"});

    EXPECT_EQ(ran.out, "21.5\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpGet, PrintsTopicAndValueForSeveral)
{
    put_double("a/b", 21.5);
    put_text("a/c", "on");

    EXPECT_EQ(kp({"get", "a/c", "a/b"}).out, "a/c\ton\na/b\t21.5\n");
    EXPECT_EQ(kp({"get", "a/+"}).out, "a/b\t21.5\na/c\ton\n");
    EXPECT_EQ(kp({"get", "-T", "a/+"}).out, "21.5\non\n");
}

TEST(KpGet, PrintsEveryType)
{
    put("t/00", KP_TYPE_BOOLEAN, bytes_of(uint8_t{1}));
    put("t/01", KP_TYPE_INT8, bytes_of(std::numeric_limits<int8_t>::min()));
    put("t/02", KP_TYPE_INT16, bytes_of(std::numeric_limits<int16_t>::min()));
    put("t/03", KP_TYPE_INT32, bytes_of(std::numeric_limits<int32_t>::min()));
    put("t/04", KP_TYPE_INT64, bytes_of(std::numeric_limits<int64_t>::min()));
    put("t/05", KP_TYPE_UINT8, bytes_of(std::numeric_limits<uint8_t>::max()));
    put("t/06", KP_TYPE_UINT16, bytes_of(std::numeric_limits<uint16_t>::max()));
    put("t/07", KP_TYPE_UINT32, bytes_of(std::numeric_limits<uint32_t>::max()));
    put("t/08", KP_TYPE_UINT64, bytes_of(std::numeric_limits<uint64_t>::max()));
    put("t/09", KP_TYPE_FLOAT, bytes_of(0.1F));
    put("t/10", KP_TYPE_DOUBLE, bytes_of(0.1));
    put("t/11", KP_TYPE_STRING, "häuser");
    put("t/12", KP_TYPE_BYTEARRAY, std::string("\x00\xff\x10", 3));
    put("t/13", KP_TYPE_RAW, "\xde\xad");

    EXPECT_EQ(kp({"get", "t/+"}).out, "t/00\ttrue\n"
                                      "t/01\t-128\n"
                                      "t/02\t-32768\n"
                                      "t/03\t-2147483648\n"
                                      "t/04\t-9223372036854775808\n"
                                      "t/05\t255\n"
                                      "t/06\t65535\n"
                                      "t/07\t4294967295\n"
                                      "t/08\t18446744073709551615\n"
                                      "t/09\t0.1\n"
                                      "t/10\t0.1\n"
                                      "t/11\thäuser\n"
                                      "t/12\t00ff10\n"
                                      "t/13\tdead\n");
    EXPECT_EQ(kp({"get", "t/12", "--base64"}).out, "AP8Q\n");
}

TEST(KpGet, GivesJsonThatAnotherProgramReads)
{
    put_double("nan", std::nan(""));
    put_double("plus", std::numeric_limits<double>::infinity());
    put("u64", KP_TYPE_UINT64, bytes_of(uint64_t{1} << 52));
    put_text("bad", "x\xff\x1b");
    put("raw", KP_TYPE_RAW, "\xde\xad");
    const std::string json = kp({"get", "-j", "#"}).out;

    EXPECT_EQ(filtered(json, {"jq", "-c", "[.topic, .type, .value, .value_b64]"}),
              "[\"bad\",\"string\",\"x\xef\xbf\xbd\\u001b\",\"eP8b\"]\n"
              "[\"nan\",\"double\",\"nan\",null]\n"
              "[\"plus\",\"double\",\"inf\",null]\n"
              "[\"raw\",\"raw\",\"dead\",null]\n"
              "[\"u64\",\"uint64\",4503599627370496,null]\n");
}

TEST(KpGet, PrintsRawBytesAndHex)
{
    put("a", KP_TYPE_RAW, std::string("\0\n\xff", 3));

    EXPECT_EQ(kp({"get", "a", "--format", "raw"}).out, std::string("\0\n\xff", 3));
    EXPECT_EQ(kp({"get", "a", "--format", "hex"}).out, "000aff\n");
}

TEST(KpGet, FillsATemplate)
{
    put_double("a/b", 21.5);

    EXPECT_EQ(kp({"get", "a/b", "--utc", "-F", "%t=%v %T q%q %w %s %a %x %p/%c 100%%\\t|"}).out,
              "a/b=21.5 double q1 2100-01-01T00:00:00.123456Z 2100-01-01T00:00:00.123456Z future "
              "0000000000803540 0/0 100%\t|\n");
    EXPECT_EQ(kp({"get", "a/b", "-F", "%v\\0"}).out, std::string("21.5\0", 5));
}

TEST(KpGet, ShowsTimesInTheStyleThatIsAsked)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"get", "-v", "a"}).out,
              "a\t1\tdouble\tquality 1\twritten 2100-01-01 00:00:00.123456\tsource 2100-01-01 "
              "00:00:00.123456\tage future\n");
    EXPECT_EQ(kp({"get", "-v", "--epoch", "a"}).out,
              "a\t1\tdouble\tquality 1\twritten 4102444800123456\tsource 4102444800123456\tage "
              "future\n");
}

TEST(KpGet, SaysWhichTopicIsMissing)
{
    put_double("a", 1);

    const Ran ran = kp({"get", "a", "b"});

    EXPECT_EQ(ran.out, "a\t1\n");
    EXPECT_EQ(ran.err, "kp: b: no such topic\n");
    EXPECT_EQ(ran.code, 1);
}

TEST(KpGet, TellsATopicWithoutProviderFromOneWithoutValue)
{
    SegmentFile("waiting").create();
    kp_shm_t *provider = kp_shm_new("empty", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(provider, KP_TYPE_INT32, 4, 0);

    EXPECT_EQ(kp({"get", "waiting"}).err, "kp: waiting: no provider has declared it yet\n");
    EXPECT_EQ(kp({"get", "empty"}).err, "kp: empty: no value has been written yet\n");
    EXPECT_EQ(kp({"get", "empty"}).code, 1);
    EXPECT_EQ(kp({"get", "#"}).err, "");
    EXPECT_EQ(kp({"get", "#"}).code, 1);
    (void)kp_shm_destroy(provider, "empty", KP_ROLE_PROVIDER);
}

TEST(KpGet, RefusesNamesThatLeaveTheStore)
{
    EXPECT_EQ(kp({"get", "../secret"}).err,
              "kp: \"../secret\" is not a topic: a level is \"..\"\n");
    EXPECT_EQ(kp({"get", "a/./b"}).code, 2);
    EXPECT_EQ(kp({"get", "/"}).err, "kp: a topic needs at least one level\n");
    EXPECT_EQ(kp({"get", std::string(256, 'x')}).code, 2);
    EXPECT_EQ(kp({"get"}).code, 2);
}

TEST(KpGet, ReportsAWriteThatDoesNotEnd)
{
    put_double("stuck", 1);
    SegmentFile("stuck").put_u8(at::writing, 1);

    const Ran ran = kp({"get", "stuck"});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err,
              "kp: stuck: a write has begun and does not end (its writer may have died)\n");
    EXPECT_EQ(ran.code, 4);
}

TEST(KpGet, ShowsNothingOfAWriteWhoseWriterWasKilledInIt)
{
    const SegmentFile file("a");
    for (int attempt = 0; attempt < 500 && !(file.exists() && file.u8(at::writing)); ++attempt) {
        ChildProcess writer(write_without_pause);
        ASSERT_EQ(writer.hear(), "writing");
        writer.signal(SIGKILL);
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    ASSERT_EQ(file.u8(at::writing), 1);

    const Ran ran = kp({"get", "a"});
    const Ran all = kp({"get", "#", "-j"});
    const Ran watch = kp({"watch", "a", "-t", "0.1"});
    const Ran doctor = kp({"doctor"});

    EXPECT_EQ(ran.out + all.out + watch.out, "");
    EXPECT_EQ(ran.err, "kp: a: a write has begun and does not end (its writer may have died)\n");
    EXPECT_EQ(ran.code, 4);
    EXPECT_THAT(doctor.out, testing::HasSubstr("error: a: a write has begun and does not end"));
    EXPECT_EQ(kp({"set", "a", "mended"}).code, 0);
    EXPECT_EQ(kp({"get", "a"}).out, "mended\n");
}

TEST(KpGet, ReportsSegmentsThatMakeNoSense)
{
    put_double("type", 1);
    SegmentFile("type").put_u32(at::value_type, 99);
    put_text("size", "x");
    SegmentFile("size").put_u32(at::written_value_size, 0xFFFFFFFF);
    put_text("max", "x");
    SegmentFile("max").put_u32(at::max_value_size, 0xFFFFFFFF);
    put_double("fixed", 1);
    SegmentFile("fixed").put_u32(at::written_value_size, 3);

    const Ran ran = kp({"get", "#"});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "kp: fixed: the segment is corrupt (type 10, size 3, maximum 0)\n"
                       "kp: max: the segment is corrupt (type 11, size 1, maximum 4294967295)\n"
                       "kp: size: the segment is corrupt (type 11, size 4294967295, maximum 0)\n"
                       "kp: type: the segment is corrupt (type 99, size 8, maximum 0)\n");
    EXPECT_EQ(ran.code, 4);
}

TEST(KpGet, NeedsPermissionToRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("open", 1);
    put_double("closed", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/open", 0444), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/closed", 0600), 0);

    EXPECT_EQ(kp({"get", "open"}, {.uid = user}).out, "1\n");
    EXPECT_EQ(kp({"get", "closed"}, {.uid = user}).err, "kp: closed: Permission denied\n");
    EXPECT_EQ(kp({"get", "closed"}, {.uid = user}).code, 3);
}

TEST(KpGet, WaitsForAValueToAppear)
{
    ChildProcess writer([](Channel &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        put_double("late", 7);
        return 0;
    });

    const Ran ran = kp({"get", "late", "-t", "20"});

    EXPECT_EQ(ran.out, "7\n");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpGet, GivesUpWaitingWithItsOwnCode)
{
    const Ran ran = kp({"get", "never", "-t", "0.05"});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "kp: never: no such topic\n");
    EXPECT_EQ(ran.code, 124);
}

TEST(KpGet, NeverShowsAValueThatIsHalfWritten)
{
    put_text("torn", std::string(4000, 'a'));
    ChildProcess writer([](Channel &parent) {
        kp_shm_t *shm = kp_shm_new("torn", 0);
        const std::string first(4000, 'a');
        const std::string second(4000, 'b');
        (void)kp_shm_set_provider_info(shm, KP_TYPE_STRING, 4000, 0);
        (void)kp_shm_write(shm, first.data(), 4000, 1, 1, 1);
        (void)parent.tell("ready");
        // The time is always the same, so that only the bytes tell the writes apart. The pauses let
        // a reader find a whole value at all.
        for (; !parent.hear(std::chrono::milliseconds(0)); (void)usleep(1))
            for (int count = 0; count < 200; ++count)
                (void)kp_shm_write(shm, (count % 2 ? first : second).data(), 4000, 1, 1, 1);
        return 0;
    });
    ASSERT_EQ(writer.hear(), "ready");

    std::string seen;
    for (int count = 0; count < 200; ++count)
        seen += kp({"get", "torn"}).out;

    EXPECT_EQ(seen.find("ab"), std::string::npos);
    EXPECT_EQ(seen.find("ba"), std::string::npos);
    EXPECT_NE(seen.find('a'), std::string::npos);
    (void)writer.tell("end");
}
