// Where a topic's file lies, and which topics have none: paths, directories and what stands in the
// way of them.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;

namespace fs = std::filesystem;

namespace {

// Gives a topic whose path is longer than 4096 bytes, of levels that a file system takes.
std::string long_topic()
{
    std::string topic(200, 'x');
    while (topic.size() < 5000)
        topic += '/' + std::string(200, 'x');
    return topic;
}

std::string cut_path_of(const std::string &topic)
{
    return segment_file_path(topic).substr(0, 4095);
}

TEST(ATopicThatLeavesTheStore, CannotBeOpened)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("../escaped", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_new("a/../../escaped", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_new("a/..", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_new("..", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines(4, "ERROR: kp_shm_new: topic is invalid"));
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

TEST(ATopicThatLeavesTheStore, CannotBeClosed)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_destroy(shm, "x/../a", KP_ROLE_PROVIDER), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_destroy: topic is invalid"});
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
}

TEST(ATopicThatLeavesTheStore, CannotBeReadInstantly)
{
    const DeclaredSegment shm("a");
    void *value = nullptr;
    uint32_t type = 1;
    uint32_t size = 2;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(
        kp_shm_instant_read("x/../a", &value, &type, &size, nullptr, nullptr, nullptr, nullptr),
        -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_read: topic is invalid"});
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(value, nullptr);
}

TEST(ATopicThatLeavesTheStore, CannotBeWrittenInstantly)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_write("../escaped", "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: topic is invalid"});
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

TEST(ATopicThatLeavesTheStore, CannotBeAskedForItsValue)
{
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_shm_instant_get_value_info("../a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("../a", nullptr), -1);
    EXPECT_EQ(kp_shm_get_reference_count("../a", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_instant_get_value_info: topic is invalid",
                                  "ERROR: kp_shm_instant_get_max_value_size: topic is invalid",
                                  "ERROR: kp_shm_get_reference_count: topic is invalid"}));
    EXPECT_EQ(output.text(), "");
}

TEST(DotsInATopic, AreTakenWhenTheyAreNotALevelOfTheirOwn)
{
    const OpenedSegment shm("..a/b../c..d/...");

    EXPECT_TRUE(SegmentFile("..a/b../c..d/...").exists());
}

TEST(ATopicLongerThanAPath, IsCut)
{
    const std::string topic = long_topic();

    const OpenedSegment shm(topic);

    EXPECT_TRUE(fs::is_regular_file(cut_path_of(topic)));
}

TEST(ATopicLongerThanAPath, IsCutWhenItIsClosedToo)
{
    const std::string topic = long_topic();
    OpenedSegment shm(topic);

    shm.close();

    EXPECT_FALSE(exists(cut_path_of(topic)));
}

TEST(ATopicLongerThanAPath, IsCutWhenItIsUsedInstantly)
{
    const std::string topic = long_topic();
    uint32_t size = 0;

    EXPECT_EQ(kp_shm_instant_write(topic.c_str(), "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), 0);
    EXPECT_EQ(kp_shm_instant_get_value_info(topic.c_str(), nullptr, &size, nullptr), 0);
    EXPECT_EQ(size, 1U);
    EXPECT_TRUE(fs::is_regular_file(cut_path_of(topic)));
}

TEST(ATopicWithALevelOf256Bytes, IsReported)
{
    const long blocks = live_blocks();
    StderrCapture log;

    EXPECT_EQ(kp_shm_new(std::string(256, 'x').c_str(), KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): File name too long"});
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(ATopicWithALevelOf255Bytes, IsTaken)
{
    const OpenedSegment shm(std::string(255, 'x'));

    EXPECT_TRUE(SegmentFile(std::string(255, 'x')).exists());
}

TEST(ATopicBelowAnotherOne, IsReported)
{
    const OpenedSegment above("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("a/b", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Not a directory"});
}

TEST(ATopicAboveAnotherOne, IsReported)
{
    const OpenedSegment below("a/b");
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Is a directory"});
}

TEST(ALinkInPlaceOfASegment, IsNotFollowed)
{
    SegmentFile("target").create();
    fs::create_symlink("/dev/shm/zu-kp/target", "/dev/shm/zu-kp/a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_instant_write("a", "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
                                  "Too many levels of symbolic links",
                                  "ERROR: kp_shm_instant_write: open shm(increase 'ulimit -n'): "
                                  "Too many levels of symbolic links",
                                  "ERROR: kp_shm_instant_get_max_value_size: "
                                  "fd '/dev/shm/zu-kp/a' create fail"}));
}

TEST(APipeInPlaceOfASegment, IsRefusedWithoutWaiting)
{
    fs::create_directories("/dev/shm/zu-kp");
    ASSERT_EQ(mkfifo("/dev/shm/zu-kp/a", 0666), 0);
    const LogLevel debug(KP_LEVEL_DEBUG);
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_new_shm: ftruncate: Invalid argument",
                                  "DEBUG: kp_shm_instant_get_max_value_size: shm is invalid. "
                                  "tag size and tag type should be set by provider."}));
}

TEST(MakingTheDirectories, LeavesTheLastLevelToTheFile)
{
    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a/b/c"), 0);

    EXPECT_TRUE(fs::is_directory("/dev/shm/zu-kp/a/b"));
    EXPECT_FALSE(exists("/dev/shm/zu-kp/a/b/c"));
}

TEST(MakingTheDirectories, MakesTheMissingOnesOnly)
{
    fs::create_directories("/dev/shm/zu-kp/a");
    const CountCalls made({Call::mkdir, Call::mkdirat});

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a/b/c"), 0);

    EXPECT_EQ(made.count(), 1);
}

TEST(MakingTheDirectories, SkipsEmptyLevels)
{
    EXPECT_EQ(kp_mkdir("//dev/shm//zu-kp/a//b/"), 0);

    EXPECT_TRUE(fs::is_directory("/dev/shm/zu-kp/a"));
    EXPECT_FALSE(exists("/dev/shm/zu-kp/a/b"));
}

TEST(MakingTheDirectories, IgnoresAFileInTheWay)
{
    SegmentFile("a").create();
    StderrCapture log;

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a/b/c"), 0);
    EXPECT_TRUE(fs::is_regular_file("/dev/shm/zu-kp/a"));
    EXPECT_EQ(log.text(), "");
}

TEST(MakingTheDirectories, StaysWithinItsBufferForAPathOfAnyLength)
{
    const std::string path = "/dev/shm/" + long_topic() + '/' + std::string(10'000, 'y') + "/z";
    StderrCapture log;

    EXPECT_EQ(kp_mkdir(path.c_str()), 0);
    EXPECT_TRUE(fs::is_directory("/dev/shm/" + std::string(200, 'x')));
    EXPECT_EQ(log.text(), "");
}

TEST(MakingTheDirectories, ReportsThatThePathCannotBeCopied)
{
    StderrCapture log;
    FailNext memory{Call::strdup};

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_mkdir: kp create tag: malloc: Cannot allocate memory\n\033[0m");
    EXPECT_FALSE(exists("/dev/shm/zu-kp"));
}

TEST(MakingTheDirectories, FreesItsCopyOfThePath)
{
    const long blocks = live_blocks();

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a"), 0);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(MakingTheDirectories, DoesNothingForNull)
{
    EXPECT_EQ(kp_mkdir(nullptr), 0);
}

} // namespace
