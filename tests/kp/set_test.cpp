#include "kp_run.h"

#include "testing/process.h"
#include "testing/segment_file.h"

#include <atomic>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;

namespace {

std::atomic<int> notices = 0;

int count_notice(kp_t *, const kp_write_info *, void *)
{
    ++notices;
    return 0;
}

constexpr int kPlain = 1;
constexpr int kLeadingSlash = 2;
constexpr int kDoubleSlash = 4;
std::atomic<int> spellings = 0;

// Notes in which buckets a notice finds the topic `a/b` as applications may spell it.
int note_spellings(kp_t *, const kp_write_info *notice, void *)
{
    const auto is_marked = [notice](const char *topic) {
        const uint32_t bucket = kp_hash(topic);
        return notice->bitmap[bucket >> 3] >> (bucket & 7) & 1;
    };
    spellings |= (is_marked("a/b") ? kPlain : 0) | (is_marked("/a/b") ? kLeadingSlash : 0) |
                 (is_marked("a//b") ? kDoubleSlash : 0);
    return 0;
}

// A topic whose provider has it open, as a running application would.
class ProvidedTopic {
  public:
    ProvidedTopic(std::string topic, uint32_t type, uint32_t size)
        : topic_(std::move(topic)), shm_(kp_shm_new(topic_.c_str(), KP_ROLE_PROVIDER))
    {
        (void)kp_shm_set_provider_info(shm_, type, size, 7);
    }
    ~ProvidedTopic()
    {
        (void)kp_shm_destroy(shm_, topic_.c_str(), KP_ROLE_PROVIDER);
    }

  private:
    std::string topic_;
    kp_shm_t *shm_;
};

} // namespace

TEST(KpSet, PrintsOldAndNew)
{
    const ProvidedTopic topic("a/b", KP_TYPE_DOUBLE, 8);

    const Ran first = kp({"set", "a/b", "21.5"});
    const Ran second = kp({"put", "/a//b/", "-3"});

    EXPECT_EQ(first.out, "a/b\t- → 21.5\n");
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(first.code, 0);
    EXPECT_EQ(second.out, "a/b\t21.5 → -3\n");
}

TEST(KpSet, KeepsTypeMaximumAndExtraInformation)
{
    const ProvidedTopic topic("a", KP_TYPE_STRING, 10);

    ASSERT_EQ(kp({"set", "a", "0123456789"}).code, 0);
    const SegmentFile file("a");

    EXPECT_EQ(file.u32(at::value_type), uint32_t{KP_TYPE_STRING});
    EXPECT_EQ(file.u32(at::max_value_size), 10U);
    EXPECT_EQ(file.u32(at::extra_info), 7U);
    EXPECT_EQ(file.u8(at::quality), 1);
    EXPECT_EQ(file.u64(at::source_ts), file.u64(at::last_write_ts));
    EXPECT_EQ(file.u8(at::provider_refs), 1);
}

TEST(KpSet, RefusesWhatDoesNotFitTheType)
{
    const ProvidedTopic number("number", KP_TYPE_INT8, 1);
    const ProvidedTopic text("text", KP_TYPE_STRING, 3);
    const ProvidedTopic flag("flag", KP_TYPE_BOOLEAN, 1);

    EXPECT_EQ(kp({"set", "number", "128"}).err, "kp: \"128\" is not int8 in its range\n");
    EXPECT_EQ(kp({"set", "number", "1.5"}).code, 2);
    EXPECT_EQ(kp({"set", "number", "1x"}).code, 2);
    EXPECT_EQ(kp({"set", "flag", "maybe"}).err, "kp: \"maybe\" is not true or false\n");
    EXPECT_EQ(kp({"set", "text", "four"}).err,
              "kp: text: 4 bytes are more than the topic's maximum, 3\n");
    EXPECT_EQ(kp({"set", "text", "x", "--type", "double"}).err,
              "kp: text: its type is string, not double (--force changes it)\n");
    EXPECT_EQ(kp({"list", "-F", "%t %v"}).out, "flag -\nnumber -\ntext -\n");
}

TEST(KpSet, NeedsATypeForANewTopic)
{
    const Ran ran = kp({"set", "new", "1"});

    EXPECT_EQ(ran.err, "kp: new: a new topic; say its type with --type\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_FALSE(exists("/dev/shm/zu-kp/new"));
}

TEST(KpSet, DeclaresANewTopicAsAProviderWould)
{
    ASSERT_EQ(kp({"set", "new/f", "1.5", "--type", "float"}).code, 0);
    ASSERT_EQ(kp({"set", "new/s", "text", "--type", "string"}).code, 0);
    ASSERT_EQ(kp({"set", "new/x", "ff 00", "--type", "raw"}).code, 0);

    EXPECT_EQ(SegmentFile("new/f").u32(at::max_value_size), 4U);
    EXPECT_EQ(SegmentFile("new/s").u32(at::max_value_size), 4000U);
    EXPECT_EQ(SegmentFile("new/x").bytes(at::value, 2), std::string("\xff\0", 2));
    EXPECT_EQ(SegmentFile("new/f").u16(at::provider_refs), 0);
    EXPECT_EQ(kp({"get", "new/#"}).out, "new/f\t1.5\nnew/s\ttext\nnew/x\tff00\n");
}

TEST(KpSet, ChangesTheTypeOnlyWhenForced)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"set", "a", "--type", "string", "--force", "x"}).out, "a\t1 → x\n");
    EXPECT_EQ(kp({"get", "a", "-F", "%T"}).out, "string\n");
}

TEST(KpSet, StoresQualityAndSourceTime)
{
    put_double("a", 1);

    ASSERT_EQ(kp({"set", "a", "2", "-q", "3", "--source-time", "1000000"}).code, 0);
    EXPECT_EQ(kp({"get", "a", "--epoch", "-F", "%v %q %s"}).out, "2 3 1000000\n");
    ASSERT_EQ(kp({"set", "a", "3", "-q", "255", "--source-time", "2026-11-20T20:30:00.25Z"}).code,
              0);
    EXPECT_EQ(kp({"get", "a", "--utc", "-F", "%v %q %s"}).out, "3 3 2026-11-20T20:30:00.250000Z\n");
    EXPECT_EQ(kp({"set", "a", "3", "-q", "256"}).code, 2);
    EXPECT_EQ(kp({"set", "a", "3", "--source-time", "yesterday"}).code, 2);
}

TEST(KpSet, TakesAValueFromStandardInput)
{
    put_text("text", "x");
    put("raw", KP_TYPE_RAW, "x");

    ASSERT_EQ(kp({"set", "text", "-"}, {.input = "two\nlines\n"}).code, 0);
    ASSERT_EQ(kp({"set", "raw", "-"}, {.input = std::string("\0\xff\n", 3)}).code, 0);

    EXPECT_EQ(kp({"get", "text"}).out, "two\\nlines\n");
    EXPECT_EQ(kp({"get", "raw"}).out, "00ff0a\n");
}

TEST(KpSet, TakesManyValuesAsJsonLines)
{
    put_double("a", 1);
    const std::string lines = "{\"topic\":\"a\",\"value\":2.5,\"quality\":4}\n"
                              "\n"
                              "{\"topic\":\"b\",\"type\":\"boolean\",\"value\":true}\n"
                              "{\"topic\":\"c\",\"type\":\"string\",\"value_b64\":\"/wA=\"}\n";

    const Ran ran = kp({"set", "--batch"}, {.input = lines});

    EXPECT_EQ(ran.out, "a\t1 → 2.5\nb\t- → true\nc\t- → \\xff\\x00\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpSet, GoesOnPastABadLineAndTellsItsNumber)
{
    put_double("a", 1);
    const std::string lines =
        "nonsense\n{\"topic\":\"a\",\"value\":\"x\"}\n{\"topic\":\"a\",\"value\":3}\n";

    const Ran ran = kp({"set", "--batch"}, {.input = lines});

    EXPECT_EQ(ran.out, "a\t1 → 3\n");
    EXPECT_EQ(ran.err, "kp: line 1: not a JSON object\n"
                       "kp: line 2: \"x\" is not double in its range\n");
    EXPECT_EQ(ran.code, 2);
}

TEST(KpSet, TellsTheLivePeers)
{
    kp_t *peer = kp_new("listener", count_notice);
    put_double("a", 1);
    notices = 0;

    const Ran ran = kp({"set", "a", "2", "--peer-wait", "20"});

    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(ran.err, "");
    EXPECT_TRUE(wait_until([] { return notices == 1; }));
    (void)kp_destroy(peer);
}

TEST(KpSet, TellsThoseToWhomATopicHasMoreSlashes)
{
    kp_t *peer = kp_new("listener", note_spellings);
    put_double("a/b", 1);

    spellings = 0;
    EXPECT_EQ(kp({"set", "a/b", "1", "--peer-wait", "20"}).code, 0);
    EXPECT_TRUE(wait_until([] { return spellings == (kPlain | kLeadingSlash); }));
    spellings = 0;
    EXPECT_EQ(
        kp({"set", "--batch", "--peer-wait", "20"}, {.input = "{\"topic\":\"a//b\",\"value\":2}\n"})
            .code,
        0);
    EXPECT_TRUE(wait_until([] { return spellings == (kPlain | kLeadingSlash | kDoubleSlash); }));
    (void)kp_destroy(peer);
}

TEST(KpSet, SendsOneNoticeForABatch)
{
    kp_t *peer = kp_new("listener", count_notice);
    put_double("a", 1);
    put_double("b", 1);
    notices = 0;

    ASSERT_EQ(kp({"set", "--batch", "--peer-wait", "20"},
                 {.input = "{\"topic\":\"a\",\"value\":2}\n{\"topic\":\"b\",\"value\":2}\n"})
                  .code,
              0);
    EXPECT_TRUE(wait_until([] { return notices >= 1; }));
    ASSERT_EQ(kp({"set", "a", "3", "--peer-wait", "20"}).code, 0);

    EXPECT_TRUE(wait_until([] { return notices >= 2; }));
    EXPECT_EQ(notices, 2);
    (void)kp_destroy(peer);
}

TEST(KpSet, LetsAPatternFollowANewTopic)
{
    kp_t *peer = kp_new("listener", count_notice);
    (void)kp_sub_topic(peer, "new/#");

    ASSERT_EQ(kp({"set", "new/topic", "1", "--type", "int32", "--peer-wait", "20"}).code, 0);

    EXPECT_TRUE(wait_until([peer] { return kp_get_tag(peer, "new/topic") != nullptr; }));
    (void)kp_tags_destroy(peer);
    (void)kp_destroy(peer);
}

TEST(KpSet, LeavesNoSocketAndNoCountBehind)
{
    const ProvidedTopic topic("a", KP_TYPE_DOUBLE, 8);

    ASSERT_EQ(kp({"set", "a", "1"}).code, 0);

    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
}

TEST(KpSet, RefusesFilesThatAreNoSegmentsAndLeavesThemAlone)
{
    SegmentFile("short").create(76);
    SegmentFile("long").create(5000);
    put_double("a", 1);
    put_double("b/c", 1);

    EXPECT_EQ(kp({"set", "short", "1", "--type", "int8"}).code, 4);
    EXPECT_EQ(kp({"set", "long", "1", "--type", "int8"}).code, 4);
    EXPECT_EQ(kp({"set", "a/x", "1", "--type", "int8"}).code, 4);
    EXPECT_EQ(kp({"set", "b", "1", "--type", "int8"}).code, 4);
    EXPECT_EQ(SegmentFile("short").size(), 76);
    EXPECT_EQ(SegmentFile("long").size(), 5000);
}

TEST(KpSet, FollowsNoLinkOutOfTheStore)
{
    std::filesystem::create_directories("/dev/shm/elsewhere");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    ASSERT_EQ(symlink("/dev/shm/elsewhere", "/dev/shm/zu-kp/door"), 0);

    EXPECT_EQ(kp({"set", "door/x", "1", "--type", "int8"}).code, 4);
    EXPECT_EQ(kp({"set", "../elsewhere/x", "1", "--type", "int8"}).code, 2);
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm/elsewhere"));
}

TEST(KpSet, NeedsPermissionToWrite)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/a", 0644), 0);

    const Ran ran = kp({"set", "a", "2"}, {.uid = user});

    EXPECT_EQ(ran.err, "kp: a: Permission denied\n");
    EXPECT_EQ(ran.code, 3);
    EXPECT_EQ(kp({"get", "a"}).out, "1\n");
}

TEST(KpSet, RefusesAnEmptyOrTooLongValue)
{
    put_text("a", "x");

    EXPECT_EQ(kp({"set", "a", "-"}, {.input = ""}).err, "kp: an empty value cannot be stored\n");
    EXPECT_EQ(kp({"set", "a", std::string(4001, 'x')}).code, 2);
    EXPECT_EQ(kp({"set", "a"}).code, 2);
    EXPECT_EQ(kp({"set", "a/+", "x"}).code, 2);
    EXPECT_EQ(kp({"get", "a"}).out, "x\n");
}

TEST(KpSet, TakesEveryNegativeNumber)
{
    EXPECT_EQ(kp({"set", "a", "--type", "double", "-inf"}).code, 0);
    EXPECT_EQ(kp({"get", "a"}).out, "-inf\n");
    EXPECT_EQ(kp({"set", "a", "-.5", "-q", "3"}).code, 0);
    EXPECT_EQ(kp({"get", "a"}).out, "-0.5\n");
    EXPECT_EQ(kp({"wait", "a", "<", "-.25", "-t", "0"}).code, 0);
    EXPECT_EQ(kp({"wait", "a", ">", "-Infinity", "-t", "0"}).code, 0);
}

TEST(KpSet, RefusesADayThatDoesNotExist)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"set", "a", "2", "--source-time", "2026-02-31T20:30:00"}).code, 2);
    EXPECT_EQ(kp({"set", "a", "2", "--source-time", "2028-02-29T23:59:60"}).code, 2);
    EXPECT_EQ(kp({"set", "a", "2", "--source-time", "2028-02-29T23:59:59Z"}).code, 0);
}

TEST(KpSet, RefusesPatternsInABatchToo)
{
    const Ran ran = kp({"set", "--batch"}, {.input = R"({"topic":"n+","type":"int8","value":1})"});

    EXPECT_EQ(ran.err, "kp: line 1: \"n+\" is a pattern; a value has one topic\n");
    EXPECT_EQ(kp({"set", "--batch", "--type", "int8"}).code, 2);
}

TEST(KpRm, RemovesATopicOnceThatIsNamedTwice)
{
    put_double("a", 1);

    const Ran ran = kp({"rm", "a", "/a", "#"});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(kp({"list"}).out, "");
}

TEST(KpRm, RemovesATopicWhoseNameLooksLikeAPattern)
{
    put_double("n+", 1);

    EXPECT_EQ(kp({"rm", "n+"}).code, 0);
    EXPECT_FALSE(SegmentFile("n+").exists());
    EXPECT_EQ(kp({"rm", "n+"}).err, "kp: \"n+\": no topic matches\n");
}

TEST(KpRm, RemovesNothingByAWildcardThatIsNoLevelByItself)
{
    put_double("a", 1);
    put_double("+y", 1);
    put_double("d/b", 1);

    const Ran mixed = kp({"rm", "a", "+x"});
    const Ran early = kp({"rm", "#/x"});
    const Ran within = kp({"rm", "d/+x", "--force"});

    EXPECT_EQ(mixed.err, "kp: \"+x\": \"+x\" mixes a wildcard with other characters, and would "
                         "remove more than it says; nothing was removed\n");
    EXPECT_EQ(mixed.code, 2);
    EXPECT_EQ(early.err, "kp: \"#/x\": \"#\" must be the last level, and would remove more than it "
                         "says; nothing was removed\n");
    EXPECT_EQ(within.code, 2);
    EXPECT_EQ(kp({"rm", "+y"}).code, 0);
    EXPECT_EQ(kp({"list"}).out, "a\nd/b\n");
}

TEST(KpSet, TakesSeveralTopicsWithTheirValues)
{
    kp_t *peer = kp_new("listener", count_notice);
    put_double("a", 1);
    put_text("b", "off");
    put_double("odd=name", 1);
    notices = 0;

    const Ran both = kp({"set", "a=2", "b=x=y", "--peer-wait", "20"});
    EXPECT_EQ(both.out, "a\t1 → 2\nb\toff → x=y\n");
    EXPECT_TRUE(wait_until([] { return notices >= 1; }));
    (void)kp_destroy(peer);

    // Without a peer standard error holds nothing but what is wrong with the arguments.
    const Ran odd = kp({"set", "odd=name", "3", "--peer-wait", "0"});
    const Ran bad = kp({"set", "a=3", "none=1", "b=", "--peer-wait", "0"});

    EXPECT_EQ(odd.out, "odd=name\t1 → 3\n");
    EXPECT_EQ(bad.out, "a\t2 → 3\n");
    EXPECT_EQ(bad.err, "kp: none: a new topic; say its type with --type\n"
                       "kp: b=: a value is needed, and not an empty one\n");
    EXPECT_EQ(bad.code, 2);
    EXPECT_EQ(kp({"set", "a", "1", "2"}).code, 2);
}

TEST(KpSet, RefusesAValueWithinValuesHoweverDeep)
{
    const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');

    const Ran ran = kp({"set", "--batch", "--peer-wait", "0"},
                       {.input = R"({"topic":"a","type":"int8","value":)" + deep + "}\n"});

    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(ran.err, "kp: line 1: \"value\" is neither a number, a text, true, false nor null\n");
}

TEST(KpSet, LeavesNoTopicBehindThatItCouldNotWrite)
{
    put_double("a", 1);
    const Ran ran = run_program({"unshare", "--mount", "bash", "-c",
                                 "mount -t tmpfs -o size=4k tmpfs /dev/shm && mkdir /dev/shm/zu-kp "
                                 "&& '" KP_PROGRAM "' set a 1 --type int8 --peer-wait 0 && "
                                 "'" KP_PROGRAM "' set b 1 --type int8 --peer-wait 0; "
                                 "echo $?; ls /dev/shm/zu-kp"});

    EXPECT_EQ(ran.out, "a\t- → 1\n5\na\n") << ran.err;
}
