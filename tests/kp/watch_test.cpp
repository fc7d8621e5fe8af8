#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace kptest;
using testing::HasSubstr;
using testing::Not;

namespace {

std::vector<std::string> watching(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {KP_PROGRAM, "watch"});
    return arguments;
}

void put_double_at(const std::string &topic, double value, uint64_t written_us)
{
    ASSERT_EQ(kp_shm_instant_write(topic.c_str(), &value, KP_TYPE_DOUBLE, sizeof(value), written_us,
                                   1, written_us, 0),
              0);
}

} // namespace

TEST(KpWatch, ShowsWhatIsThereAndThenEachChange)
{
    put_double("a/b", 1);
    ChildProcess watch(watching({"a/#", "--rate", "200"}));

    EXPECT_EQ(watch.hear(), "a/b\t1");
    put_double("a/b", 2);
    SegmentFile("a/b").put_u64(at::last_write_ts, 5);
    EXPECT_EQ(watch.hear(), "a/b\t2");
}

TEST(KpWatch, FindsNewTopicsAndNewDirectories)
{
    put_double("a", 1);
    ChildProcess watch(watching({"#", "--rate", "200"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    put_double("x/y/z", 2);
    EXPECT_EQ(watch.hear(), "x/y/z\t2");
    put_double("x/y/w", 3);
    EXPECT_EQ(watch.hear(), "x/y/w\t3");
}

TEST(KpWatch, FollowsATopicThatIsRemovedAndMadeAnew)
{
    put_double("a", 1);
    ChildProcess watch(watching({"a", "--rate", "200"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    SegmentFile("a").remove();
    put_double("a", 2);

    EXPECT_EQ(watch.hear(), "a\t2");
}

TEST(KpWatch, SurvivesAFileThatIsCutShort)
{
    put_double("a", 1);
    put_double("b", 1);
    ChildProcess watch(watching({"#", "--rate", "200"}));
    ASSERT_EQ(watch.hear(), "a\t1");
    ASSERT_EQ(watch.hear(), "b\t1");

    ASSERT_EQ(truncate(SegmentFile("a").path().c_str(), 0), 0);
    put_double("b", 2);
    SegmentFile("b").put_u64(at::last_write_ts, 5);

    EXPECT_EQ(watch.hear(), "b\t2");
}

TEST(KpWatch, FollowsAFileAgainThatIsGivenBackItsSize)
{
    put_double("a", 1);
    put_double("b", 1);
    ChildProcess watch(watching({"#", "--rate", "200"}));
    ASSERT_EQ(watch.hear(), "a\t1");
    ASSERT_EQ(watch.hear(), "b\t1");
    const SegmentFile file("a");
    const std::string bytes = file.all();

    ASSERT_EQ(truncate(file.path().c_str(), 0), 0);
    for (const int value : {2, 3}) { // by the second change it has surely met the short file
        put_double_at("b", value, static_cast<uint64_t>(value));
        ASSERT_EQ(watch.hear(), "b\t" + std::to_string(value));
    }
    file.put_bytes(0, bytes);

    EXPECT_EQ(watch.hear(), "a\t1");
}

TEST(KpWatch, FollowsAFileOnceItMayBeRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("a", 1);
    put_double("b", 1);
    ASSERT_EQ(chmod(SegmentFile("a").path().c_str(), 0600), 0);
    ASSERT_EQ(chmod(SegmentFile("b").path().c_str(), 0644), 0);
    const std::string number = std::to_string(user);
    ChildProcess watch(std::vector<std::string>{"setpriv", "--reuid=" + number, "--regid=" + number,
                                                "--clear-groups", program_for(user), "watch", "#"});
    ASSERT_EQ(watch.hear(), "b\t1");

    ASSERT_EQ(chmod(SegmentFile("a").path().c_str(), 0644), 0);

    EXPECT_EQ(watch.hear(), "a\t1");
}

TEST(KpWatch, EndsAfterTheWantedNumberOfLines)
{
    put_double("a", 1);
    put_double("b", 2);

    const Ran two = kp({"watch", "#", "-n", "2"});
    const Ran one = kp({"watch", "#", "-1"});

    EXPECT_EQ(two.out, "a\t1\nb\t2\n");
    EXPECT_EQ(two.code, 0);
    EXPECT_EQ(one.out, "a\t1\n");
}

TEST(KpWatch, SaysWhichTopicsItCannotShow)
{
    put_double("corrupt", 1);
    SegmentFile("corrupt").put_u32(at::value_type, 99);
    put_double("fine", 1);
    SegmentFile("short").create(3);
    put_double("stuck", 1);
    SegmentFile("stuck").put_u8(at::writing, 1);

    const Ran ran = kp({"watch", "#", "-t", "0.5", "--rate", "50"});

    EXPECT_EQ(ran.out, "fine\t1\n");
    EXPECT_EQ(ran.err,
              "kp: corrupt: the segment is corrupt (type 99, size 8, maximum 0)\n"
              "kp: short: not a segment (3 bytes instead of 4080)\n"
              "kp: stuck: a write has begun and does not end (its writer may have died)\n");
    EXPECT_EQ(ran.code, 4);
}

TEST(KpWatch, HasACodeThatDoesNotHangOnTheOrderOfTheFiles)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    const auto code_after = [user](const std::vector<std::string> &order) {
        for (const std::string &topic : order) {
            SegmentFile(topic).create(topic == "short" ? 3 : at::end);
            (void)chmod(SegmentFile(topic).path().c_str(), topic == "short" ? 0644 : 0600);
        }
        const Ran ran = kp({"watch", "#", "-t", "0.1"}, {.uid = user});
        for (const std::string &topic : order)
            SegmentFile(topic).remove();
        return ran.code;
    };

    EXPECT_EQ(code_after({"private", "short"}), 3);
    EXPECT_EQ(code_after({"short", "private"}), 3);
}

TEST(KpWatch, EndsAfterTheValuesThatAreThere)
{
    put_double("a", 1);

    const Ran ran = kp({"watch", "#", "--initial-only"});

    EXPECT_EQ(ran.out, "a\t1\n");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpWatch, RefusesNumbersThatAreNone)
{
    EXPECT_EQ(kp({"watch", "a", "-n", "-1"}).code, 2);
    EXPECT_EQ(kp({"watch", "a", "-t", "nan"}).code, 2);
    EXPECT_EQ(kp({"watch", "a", "--rate", "nan"}).code, 2);
    EXPECT_EQ(kp({"hz", "a", "-n", "1.5"}).code, 2);
}

TEST(KpWatch, EndsWhenItsTimeIsOver)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"watch", "a", "-t", "0.05"}).code, 0);
    EXPECT_EQ(kp({"watch", "a", "-t", "0.05", "-n", "2"}).code, 124);
    const Ran quiet = kp({"watch", "a", "-t", "0.05", "--no-initial"});
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.code, 1);
}

TEST(KpWatch, PrintsInEveryFormat)
{
    put_double("a", 1);

    EXPECT_EQ(kp({"watch", "a", "-1", "-F", "%v"}).out, "1\n");
    EXPECT_EQ(filtered(kp({"watch", "a", "-1", "-j"}).out, {"jq", "-c", "[.topic,.value]"}),
              "[\"a\",1]\n");
    EXPECT_THAT(kp({"watch", "a", "-1", "--format", "csv"}).out,
                testing::StartsWith("topic,type,value,"));
}

TEST(KpWatch, SaysWithItsCodeWhichSignalEndedIt)
{
    put_double("a", 1);
    ChildProcess watch(watching({"a"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    watch.signal(SIGTERM);

    EXPECT_EQ(watch.wait(), 128 + SIGTERM);
}

TEST(KpWatch, OutlivesItsTerminalUnderNohup)
{
    put_double_at("a", 1, 1);
    ChildProcess watch(std::vector<std::string>{
        "sh", "-c", "trap '' HUP; exec '" KP_PROGRAM "' watch a --rate 200"});
    ASSERT_EQ(watch.hear(), "a\t1");

    watch.signal(SIGHUP);
    put_double_at("a", 2, 2);

    EXPECT_EQ(watch.hear(), "a\t2");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 128 + SIGTERM);
}

TEST(KpWatch, EndsQuietlyWhenItsReaderGoesAwayEvenIfNothingChanges)
{
    put_double("a", 1);

    const Ran ran = kp({"watch", "a"}, {.close_output_after = 1});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpWatch, NeitherJoinsTheMeshNorCounts)
{
    put_double("a", 1);
    std::filesystem::create_directories("/run/providers");
    const std::string before = store_picture();
    ChildProcess watch(watching({"#"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    EXPECT_EQ(store_picture(), before);
}

TEST(KpWatch, CannotStopAProviderByBeingStopped)
{
    kp_t *handle = kp_new("provider", ignore_notice);
    kp_tag_t *tag = kp_tag_provider_new(handle, "a", KP_TYPE_INT32, 4, 0);
    int32_t value = 0;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    ChildProcess watch(watching({"#"}));
    ASSERT_EQ(watch.hear(), "a\t0");
    watch.signal(SIGSTOP);

    for (value = 1; value <= 2000; ++value) {
        (void)kp_tag_write(handle, tag, &value, sizeof(value));
        (void)kp_tag_notify(handle);
    }

    EXPECT_EQ(kp({"get", "a"}).out, "2000\n");
    watch.signal(SIGCONT);
    EXPECT_EQ(watch.hear(), "a\t2000");
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
}

TEST(KpWatch, FollowsTheNoticesOfTheMesh)
{
    kp_t *handle = kp_new("provider", ignore_notice);
    kp_tag_t *tag = kp_tag_provider_new(handle, "a", KP_TYPE_INT32, 4, 0);
    int32_t value = 1;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    ChildProcess watch(watching({"a", "--mesh"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    value = 2;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    (void)kp_tag_notify(handle);

    EXPECT_EQ(watch.hear(), "a\t2");
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
}

TEST(KpWatch, ASignalEndsItWhileItJoins)
{
    put_double("a", 1);
    leave_dead_sockets(10);
    const auto start = std::chrono::steady_clock::now();
    ChildProcess watch(watching({"a", "--mesh"}));
    ASSERT_EQ(watch.hear(), "a\t1");

    watch.signal(SIGTERM);

    EXPECT_EQ(watch.wait(), 128 + SIGTERM);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_THAT(kp({"peers"}).out, Not(HasSubstr("kp-watch")));
}

// A container has process numbers of its own, and may share the directory of the sockets.
TEST(KpWatch, JoinsTheMeshBesideAnotherOfTheSameProcessNumber)
{
    put_double("a", 1);
    const std::vector<std::string> watching_as_one = {"unshare",  "--pid", "--fork", "--kill-child",
                                                      KP_PROGRAM, "watch", "a",      "--mesh"};
    ChildProcess first(watching_as_one);
    ChildProcess second(watching_as_one);

    EXPECT_EQ(first.hear(), "a\t1");
    EXPECT_EQ(second.hear(), "a\t1");
    EXPECT_EQ(filtered(kp({"peers", "-j"}).out, {"jq", "-c", "[.state, (.name|.[0:11])]"}),
              "[\"live\",\"kp-watch-1-\"]\n[\"live\",\"kp-watch-1-\"]\n");
}
