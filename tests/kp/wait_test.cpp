#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <chrono>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using namespace kptest;
using testing::HasSubstr;
using testing::Not;

TEST(KpWait, ComparesNumbersByValue)
{
    put_double("a", 9);

    EXPECT_EQ(kp({"wait", "a", "==9.0", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", "==", "9", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", "<", "10", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", ">=", "10", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "a", "!=", "9", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "a", ">", "-9", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", "<=", "8", "-t", "0"}).code, 1);
}

TEST(KpWait, ComparesTextAndBooleans)
{
    put_text("text", "on");
    put("flag", KP_TYPE_BOOLEAN, bytes_of(uint8_t{1}));

    EXPECT_EQ(kp({"wait", "text", "==", "on", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "text", "==", "off", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "flag", "==", "true", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "flag", "==", "off", "-t", "0"}).code, 1);
}

TEST(KpWait, FindsNotANumberUnequalToAll)
{
    put_double("a", std::nan(""));

    EXPECT_EQ(kp({"wait", "a", "==", "nan", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "a", "!=", "1", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", "<=", "1", "-t", "0"}).code, 1);
}

TEST(KpWait, WaitsForAValue)
{
    put_double("a", 1);
    ChildProcess writer([](Channel &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        put_double("a", 5);
        return 0;
    });

    const Ran ran = kp({"wait", "a", "==5", "-t", "20"});

    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpWait, WaitsForATopicToAppear)
{
    ChildProcess writer([](Channel &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        put_double("late", 5);
        return 0;
    });

    EXPECT_EQ(kp({"wait", "late", "exists", "-t", "20"}).code, 0);
}

TEST(KpWait, WaitsForAChange)
{
    put_double("a", 1);
    EXPECT_EQ(kp({"wait", "a", "changes", "-t", "0.05"}).code, 124);
    // It goes on changing the value, since nobody knows when the command has had its first look.
    ChildProcess writer([](Channel &parent) {
        for (double value = 2; !parent.hear(std::chrono::milliseconds(100)); ++value)
            put_double("a", value);
        return 0;
    });

    EXPECT_EQ(kp({"wait", "a", "changes", "-t", "20"}).code, 0);
    (void)writer.tell("end");
}

TEST(KpWait, KnowsHowFreshAValueIs)
{
    put_double("a", 1);
    SegmentFile("a").put_u64(at::last_write_ts, kp_shm_get_timestamp_us() - 10'000'000);

    EXPECT_EQ(kp({"wait", "a", "fresh", "5", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "a", "fresh", "1000", "-t", "0"}).code, 0);
}

TEST(KpWait, GivesUpWithItsOwnCode)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"wait", "a", "==", "2", "-t", "0.05"}).code, 124);
    EXPECT_EQ(kp({"wait", "missing", "exists", "-t", "0.05"}).code, 124);
}

TEST(KpWait, DoesNotTakeTheEndOfItsReaderForTheCondition)
{
    put_double("a", 1);

    const Ran ran = run_program(
        {"bash", "-c", "(\"$0\" wait a == 2 -t 20; echo $? >/run/code) | true; cat /run/code",
         KP_PROGRAM});

    EXPECT_EQ(ran.out, "1\n");
}

TEST(KpWait, SaysWhatKeepsItFromSeeingTheTopic)
{
    put_double("stuck", 1);
    SegmentFile("stuck").put_u8(at::writing, 1);
    SegmentFile("short").create(3);
    const std::string stuck =
        "kp: stuck: a write has begun and does not end (its writer may have died)\n";

    const Ran timed = kp({"wait", "stuck", "==", "1", "-t", "0.1"});
    const Ran once = kp({"wait", "short", "exists", "-t", "0"});

    EXPECT_EQ(timed.err, stuck);
    EXPECT_EQ(timed.code, 4);
    EXPECT_EQ(once.err, "kp: short: not a segment (3 bytes instead of 4080)\n");
    EXPECT_EQ(once.code, 4);
    EXPECT_EQ(kp({"get", "stuck", "-t", "0.1"}).code, 4);
}

TEST(KpWait, TellsAtOnceOfAProblemWhenItWaitsForEver)
{
    put_double("a", 1);
    SegmentFile("a").put_u8(at::writing, 1);
    ChildProcess wait(
        std::vector<std::string>{"bash", "-c", "exec '" KP_PROGRAM "' wait a == 2 2>&1"});

    EXPECT_EQ(wait.hear(), "kp: a: a write has begun and does not end (its writer may have died)");
    put_double("a", 2);

    EXPECT_EQ(wait.wait(), 0);
}

TEST(KpWait, RefusesWhatCanNeverHold)
{
    put("a", KP_TYPE_INT32, bytes_of(int32_t{1}));

    EXPECT_EQ(kp({"wait", "a", "==", "x"}).err, "kp: \"x\" is not int32 in its range\n");
    EXPECT_EQ(kp({"wait", "a", "~", "1"}).code, 2);
    EXPECT_EQ(kp({"wait", "a", "fresh", "soon"}).code, 2);
    EXPECT_EQ(kp({"wait", "a"}).code, 2);
    EXPECT_EQ(kp({"wait", "a/+", "==", "1"}).err,
              "kp: \"a/+\" is a pattern; wait looks at one topic\n");
}

TEST(KpWait, TakesAConditionInOneWordAsPeopleQuoteIt)
{
    put_double("a", 5);
    put_text("text", "on");

    EXPECT_EQ(kp({"wait", "a", "> 4", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", " < 4 ", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "text", "== on", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "text", "!= on", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "text", "==", " on", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "a", "fresh 5", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", ">", "-t", "0"}).code, 2);
    EXPECT_EQ(kp({"wait", "a", "> ", "-t", "0"}).code, 2);
}

TEST(KpWait, ComparesIntegersWithNumbersThatTheirTypeHasNot)
{
    put("signed", KP_TYPE_INT32, bytes_of(int32_t{5}));
    put("unsigned", KP_TYPE_UINT64, bytes_of(UINT64_MAX));

    EXPECT_EQ(kp({"wait", "signed", ">4.5", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "signed", "==5.5", "-t", "0"}).code, 1);
    EXPECT_EQ(kp({"wait", "signed", "==5.0", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "signed", "<", "1e300", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "signed", "!=", "nan", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "unsigned", ">", "-1", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "unsigned", "<", "18446744073709551616", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "unsigned", ">", "18446744073709551614.5", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "signed", ">four", "-t", "0"}).code, 2);
}

TEST(KpWait, PrintsWhatMetTheConditionWhenAsked)
{
    put_double("a", 5);

    EXPECT_EQ(kp({"wait", "a", ">4", "-v"}).out, kp({"get", "a", "-v"}).out);
}

// Joining takes three seconds for each dead socket.
TEST(KpWait, JoiningHoldsUpNeitherTheTimeNorTheLook)
{
    put_double("a", 4);
    leave_dead_sockets(10);
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(kp({"wait", "a", "==", "5", "--mesh", "-t", "0.1"}).code, 124);
    EXPECT_EQ(kp({"wait", "a", "==", "4", "--mesh", "-t", "600"}).code, 0);

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_THAT(kp({"peers"}).out, Not(HasSubstr("kp-watch")));
}

TEST(KpWait, LooksAtOnceWhenANoticeComes)
{
    kp_t *handle = kp_new("provider", ignore_notice);
    kp_tag_t *tag = kp_tag_provider_new(handle, "a", KP_TYPE_INT32, 4, 0);
    int32_t value = 1;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    ChildProcess waiting({KP_PROGRAM, "wait", "a", "==", "2", "--mesh", "-v"});
    ASSERT_TRUE(wait_until([] {
        return filtered(kp({"peers", "-j"}).out,
                        {"jq", "-c", "select(.name==\"provider\")|.connections"}) == "1\n";
    }));

    value = 2;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    (void)kp_tag_notify(handle);

    EXPECT_EQ(waiting.wait(), 0);
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
}
