// Writing a topic by its name alone.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include "layout/segment.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

int32_t write_hello(const char *topic, uint8_t quality = 12)
{
    return kp_shm_instant_write(topic, "hello", KP_TYPE_STRING, 5, 11, quality, 13, 77);
}

int32_t write_nothing(const char *topic, uint32_t value_type = KP_TYPE_UINT32, uint8_t quality = 12)
{
    return kp_shm_instant_write(topic, nullptr, value_type, 5, 11, quality, 13, 77);
}

class InstantWriteFault : public LeavesNothingBehind {};

TEST(InstantWrite, OfAValueToANewTopicCreatesItWithoutAMaximum)
{
    EXPECT_EQ(write_hello("a/b/c"), 0);

    const SegmentFile file("a/b/c");
    EXPECT_EQ(file.size(), 4080);
    EXPECT_EQ(file.u8(at::flags), kValidFlag | kHasValueFlag);
    EXPECT_EQ(file.u32(at::max_value_size), 0U);
    EXPECT_EQ(file.u32(at::written_value_size), 5U);
    EXPECT_EQ(file.bytes(at::value, 6), std::string("hello\0", 6));
}

TEST(InstantWrite, StoresEveryFieldAtItsPlace)
{
    ASSERT_EQ(write_hello("a"), 0);

    const SegmentFile file("a");
    EXPECT_EQ(file.u64(at::last_write_ts), 11U);
    EXPECT_EQ(file.u8(at::writing), 0);
    EXPECT_EQ(file.u8(at::quality), 12);
    EXPECT_EQ(file.u32(at::value_type), 11U);
    EXPECT_EQ(file.u32(at::extra_info), 77U);
    EXPECT_EQ(file.u64(at::source_ts), 13U);
}

TEST(InstantWrite, LeavesSemaphoreAndCountsOfANewTopicZero)
{
    ASSERT_EQ(write_hello("a"), 0);

    EXPECT_EQ(SegmentFile("a").bytes(at::sem, 32), std::string(32, '\0'));
    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
}

TEST(InstantWrite, WithoutAValueToANewTopicDeclaresItOfTheLargestSize)
{
    EXPECT_EQ(write_nothing("a", KP_TYPE_UINT32), 0);

    const SegmentFile file("a");
    EXPECT_EQ(file.u8(at::flags), kValidFlag);
    EXPECT_EQ(file.u32(at::max_value_size), 4000U);
    EXPECT_EQ(file.u32(at::written_value_size), 4U);
    EXPECT_EQ(file.u8(at::writing), 0);
}

TEST(InstantWrite, WithoutAValueGivesNoSizeToANewTopicOfAVariableOne)
{
    ASSERT_EQ(write_nothing("a", KP_TYPE_STRING), 0);
    ASSERT_EQ(write_nothing("b", KP_TYPE_BYTEARRAY), 0);
    ASSERT_EQ(write_nothing("c", KP_TYPE_RAW), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("b").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("c").u32(at::written_value_size), 0U);
}

TEST(InstantWrite, WithoutAValueToAnExistingTopicLeavesValueAndSizes)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 100, 1);
    ASSERT_EQ(kp_shm_write(shm, "old", 3, 1, 2, 3), 3);

    EXPECT_EQ(write_nothing("a", KP_TYPE_UINT32), 0);

    const SegmentFile file("a");
    EXPECT_EQ(file.u64(at::last_write_ts), 11U);
    EXPECT_EQ(file.u32(at::value_type), 7U);
    EXPECT_EQ(file.u32(at::extra_info), 77U);
    EXPECT_EQ(file.u8(at::quality), 12);
    EXPECT_EQ(file.u64(at::source_ts), 13U);
    EXPECT_EQ(file.u32(at::max_value_size), 100U);
    EXPECT_EQ(file.u32(at::written_value_size), 3U);
    EXPECT_EQ(file.u8(at::flags), kValidFlag | kHasValueFlag);
    EXPECT_EQ(file.bytes(at::value, 3), "old");
}

TEST(InstantWrite, ToAnExistingTopicLeavesItsMaximum)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 2);

    EXPECT_EQ(write_hello("a"), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::max_value_size), 2U);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 5U);
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 5), "hello");
}

TEST(InstantWrite, DeclaresATopicThatAConsumerHasOpen)
{
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    char buffer[8]{};

    ASSERT_EQ(write_hello("a"), 0);

    EXPECT_EQ(kp_shm_read(consumer, buffer, sizeof(buffer), nullptr, nullptr, nullptr), 5);
    EXPECT_STREQ(buffer, "hello");
}

TEST(InstantWrite, KeepsTheUnusedFlags)
{
    SegmentFile("a").create();
    SegmentFile("a").put_u8(at::flags, 0xF0);

    ASSERT_EQ(write_nothing("a"), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::flags), 0xF1);
}

TEST(InstantWrite, WithoutAValueTakesBackOneThatCameBetween)
{
    const Before mapping{Call::mmap, [] { ASSERT_EQ(write_hello("a"), 0); }};

    EXPECT_EQ(kp_shm_instant_write("a", nullptr, KP_TYPE_UINT32, 0, 1, 1, 1, 0), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::flags), kp::kValid);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 4U);
}

TEST(InstantWrite, WithQuality255LeavesTheStoredOne)
{
    ASSERT_EQ(write_hello("a", 7), 0);

    ASSERT_EQ(write_hello("a", 255), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::quality), 7);
}

TEST(InstantWrite, WithQuality254StoresIt)
{
    ASSERT_EQ(write_hello("a", 254), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::quality), 254);
}

TEST(InstantWrite, ClearsTheMarkOfAWriterThatDied)
{
    ASSERT_EQ(write_hello("a"), 0);
    SegmentFile("a").put_u8(at::writing, 1);

    ASSERT_EQ(write_hello("a"), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::writing), 0);
}

TEST(InstantWrite, OfZeroBytesGivesAnEmptyValue)
{
    ASSERT_EQ(write_hello("a"), 0);

    EXPECT_EQ(kp_shm_instant_write("a", "", KP_TYPE_STRING, 0, 1, 1, 1, 1), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("a").u8(at::flags), kValidFlag | kHasValueFlag);
}

TEST(InstantWrite, LeavesATopicThatBufferedWritesFailOnUntilItIsDeclared)
{
    ASSERT_EQ(write_hello("a"), 0);
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(5) > max_value_size(0)"});
    ASSERT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_STRING, 100, 0), 0);
    EXPECT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
}

TEST(InstantWrite, LeavesAFileThatTheLastCloseRemoves)
{
    ASSERT_EQ(write_hello("a"), 0);
    EXPECT_TRUE(SegmentFile("a").exists());

    OpenedSegment("a").close();

    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(InstantWrite, GivesAShortFileItsSize)
{
    SegmentFile("a").create(10);

    EXPECT_EQ(write_hello("a"), 0);

    EXPECT_EQ(SegmentFile("a").size(), 4080);
}

TEST(InstantWrite, KeepsNothing)
{
    const auto descriptors = open_descriptors();
    const long blocks = live_blocks();

    EXPECT_EQ(write_hello("a/b"), 0);

    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(mapping_count(), 0);
}

TEST(InstantWrite, PrintsNothingWhenTheFileIsMissing)
{
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(write_hello("a"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(output.text(), "");
}

TEST(InstantWrite, OfAnUnknownTypeReportsItOnlyWhenItAsksForItsSize)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_write("a", nullptr, 14, 0, 1, 1, 1, 1), 0);
    EXPECT_EQ(kp_shm_instant_write("b", "x", 14, 1, 1, 1, 1, 1), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_get_value_size: value type is invalid"});
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
}

TEST(InstantWrite, NeedsATopic)
{
    StderrCapture log;

    EXPECT_EQ(write_hello(nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: topic is null"});
}

TEST(InstantWrite, ToAnEmptyTopicMeetsTheStoresDirectory)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(write_hello(""), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: open shm(increase 'ulimit -n'): "
                                 "Is a directory"});
}

TEST_F(InstantWriteFault, OfMemoryForThePathIsReportedTwice)
{
    StderrCapture log;
    FailNext fault{Call::strdup};

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_mkdir: kp create tag: malloc: Cannot allocate memory",
                                  "ERROR: kp_shm_instant_write: make tag directory failed"}));
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST_F(InstantWriteFault, OfTheFileIsReported)
{
    StderrCapture log;
    FailFrom fault{Call::syscall, 1, EMFILE};

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_write: open shm(increase 'ulimit -n'): "
              "Too many open files\n\033[0m");
}

TEST_F(InstantWriteFault, ForAMomentWithoutDescriptorsIsNone)
{
    const FailNext own(Call::syscall, EMFILE);
    EXPECT_EQ(write_hello("a"), 0);
    const FailNext of_all(Call::syscall, ENFILE);
    EXPECT_EQ(write_hello("b"), 0);
}

TEST_F(InstantWriteFault, OfAnotherKindIsReportedAtOnce)
{
    ASSERT_EQ(write_hello("a"), 0);
    StderrCapture log;
    const FailNext fault(Call::syscall, EIO);

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: open shm(increase 'ulimit -n'): "
                                 "Input/output error"});
}

TEST_F(InstantWriteFault, OfAFileThatVanishesBeforeItIsOpenedIsNone)
{
    SegmentFile("a").create();
    StderrCapture log;
    Before opening{Call::syscall, [] { SegmentFile("a").remove(); }};

    EXPECT_EQ(write_hello("a"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST_F(InstantWriteFault, OfTheSizeIsReported)
{
    StderrCapture log;
    FailNext fault{Call::ftruncate, EFBIG};

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_write: ftruncate: File too large\n\033[0m");
}

TEST_F(InstantWriteFault, OfThePageOnAFullFileSystemIsReported)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    store.fill();
    StderrCapture log;

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_shm_instant_write: ftruncate: No space left on device"});
}

TEST_F(InstantWriteFault, OfThePageOnAFullFileSystemLeavesAnUndeclaredTopic)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    store.fill();
    ASSERT_EQ(write_hello("a"), -1);
    StdoutCapture output;
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(InstantWriteFault, OfTheMappingIsReportedInTheWordsOfTheReaders)
{
    StderrCapture log;
    FailNext fault{Call::mmap, ENOMEM};

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_write: "
              "instant read mmap: Cannot allocate memory\n\033[0m");
    EXPECT_EQ(SegmentFile("a").u8(at::flags), 0);
}

TEST_F(InstantWriteFault, OfTheUnmappingIsReportedAndTheResultKept)
{
    StderrCapture log;
    FailNext fault{Call::munmap, EINVAL};

    EXPECT_EQ(write_hello("a"), 0);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_write: munmap: Invalid argument\n\033[0m");
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 5), "hello");
}

TEST_F(InstantWriteFault, IsReportedWithItsOwnErrorWhenTheClosingFailsToo)
{
    StderrCapture log;
    FailNext sizing{Call::ftruncate, EFBIG};
    FailNext closing{Call::close, EIO};

    EXPECT_EQ(write_hello("a"), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: ftruncate: File too large"});
}

} // namespace
