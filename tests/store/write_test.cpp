// Writing through an open segment.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/segment_file.h"
#include "value/plain.h"

#include "kp.h"

#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

TEST(ShmWrite, OfAFixedSizeReturnsIt)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);

    EXPECT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);
}

TEST(ShmWrite, OfAWholeValueAreaIsTheLargest)
{
    const std::string bytes(kp::kValueAreaSize + 1, 'x');
    const DeclaredSegment shm("a", KP_TYPE_RAW, kp::kValueAreaSize);

    EXPECT_EQ(kp_shm_write(shm, bytes.data(), kp::kValueAreaSize, 1, 1, 1),
              int32_t{kp::kValueAreaSize});

    EXPECT_EQ(SegmentFile("a").bytes(at::value, kp::kValueAreaSize),
              bytes.substr(0, kp::kValueAreaSize));
}

TEST(ShmWrite, StoresEveryFieldAtItsPlace)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 11, 12, 13), 4);

    const SegmentFile file("a");
    EXPECT_EQ(file.u64(at::last_write_ts), 11U);
    EXPECT_EQ(file.u8(at::writing), 0);
    EXPECT_EQ(file.u8(at::flags), kValidFlag | kHasValueFlag);
    EXPECT_EQ(file.u8(at::quality), 12);
    EXPECT_EQ(file.u64(at::source_ts), 13U);
    EXPECT_EQ(file.u32(at::written_value_size), 4U);
    EXPECT_EQ(file.bytes(at::value, 5), std::string("\1\2\3\4\0", 5));
}

TEST(ShmWrite, LeavesTheDeclarationAndTheCountsAlone)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100, 77);
    const SegmentFile file("a");

    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 11, 12, 13), 5);

    EXPECT_EQ(file.u32(at::value_type), 11U);
    EXPECT_EQ(file.u32(at::max_value_size), 100U);
    EXPECT_EQ(file.u32(at::extra_info), 77U);
    EXPECT_EQ(file.u8(at::provider_refs), 1);
    EXPECT_EQ(file.bytes(at::reserved, 7), std::string(7, '\0'));
}

TEST(ShmWrite, OfAnotherThanTheFixedSizeFailsAndChangesNothing)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    const std::string before = SegmentFile("a").all();
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, &kNumber, 3, 1, 1, 1), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_shm_check_written_value_size: "
              "written_value_size(3) != max_value_size(4)\n\033[0m");
    EXPECT_EQ(SegmentFile("a").all(), before);
}

TEST(ShmWrite, OfZeroBytesFailsForAFixedSize)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT8, 1);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, &kNumber, 0, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(0) != max_value_size(1)"});
}

TEST(ShmWrite, OfAVariableSizeTakesUpToTheMaximum)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    const std::string text(100, 'x');

    EXPECT_EQ(kp_shm_write(shm, text.data(), 0, 1, 1, 1), 0);
    EXPECT_EQ(kp_shm_write(shm, text.data(), 50, 1, 1, 1), 50);
    EXPECT_EQ(kp_shm_write(shm, text.data(), 100, 1, 1, 1), 100);
}

TEST(ShmWrite, BeyondTheMaximumFailsAndChangesNothing)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    const std::string text(101, 'x');
    const std::string before = SegmentFile("a").all();
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, text.data(), 101, 1, 1, 1), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_shm_check_written_value_size: "
              "written_value_size(101) > max_value_size(100)\n\033[0m");
    EXPECT_EQ(SegmentFile("a").all(), before);
}

TEST(ShmWrite, ChecksTheSizeOfBytesAndOfRawLikeThatOfStrings)
{
    const DeclaredSegment bytes("a", KP_TYPE_BYTEARRAY, 2);
    const DeclaredSegment raw("b", KP_TYPE_RAW, 2);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(bytes, "x", 1, 1, 1, 1), 1);
    EXPECT_EQ(kp_shm_write(raw, "x", 1, 1, 1, 1), 1);
    EXPECT_EQ(kp_shm_write(bytes, "xyz", 3, 1, 1, 1), -1);
    EXPECT_EQ(kp_shm_write(raw, "xyz", 3, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines(2, "WARN: kp_shm_check_written_value_size: "
                                    "written_value_size(3) > max_value_size(2)"));
}

TEST(ASizeToBeWritten, PassesItsCheckWhereItFits)
{
    const DeclaredSegment fixed("a");
    const DeclaredSegment variable("b", KP_TYPE_RAW, 10);
    StderrCapture log;

    EXPECT_EQ(kp_shm_check_written_value_size(*static_cast<kp_shm_t *>(fixed)->mem, 4), 0);
    EXPECT_EQ(kp_shm_check_written_value_size(*static_cast<kp_shm_t *>(variable)->mem, 10), 0);
    EXPECT_EQ(log.text(), "");
}

TEST(ShmWrite, ComparesSizesUnsigned)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, "x", UINT32_MAX, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(-1) > max_value_size(100)"});
}

TEST(ShmWrite, WithoutAValueRefreshesTimesAndQualityOnly)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 2, 3), 4);

    EXPECT_EQ(kp_shm_write(shm, nullptr, 4, 11, 12, 13), 0);

    const SegmentFile file("a");
    EXPECT_EQ(file.u64(at::last_write_ts), 11U);
    EXPECT_EQ(file.u8(at::quality), 12);
    EXPECT_EQ(file.u64(at::source_ts), 13U);
    EXPECT_EQ(file.u32(at::written_value_size), 4U);
    EXPECT_EQ(file.u8(at::flags), kValidFlag | kHasValueFlag);
    EXPECT_EQ(file.u8(at::writing), 0);
    EXPECT_EQ(file.bytes(at::value, 4), "\1\2\3\4");
}

TEST(ShmWrite, WithoutAValueGivesNone)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);

    EXPECT_EQ(kp_shm_write(shm, nullptr, 5, 1, 1, 1), 0);

    EXPECT_EQ(kp_shm_has_value(shm), 0);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
}

TEST(ShmWrite, WithoutAValueChecksTheSizeAllTheSame)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, nullptr, 0, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(0) != max_value_size(4)"});
}

TEST(ShmWrite, WithQuality255LeavesTheStoredOne)
{
    const DeclaredSegment shm("a");
    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 7, 1), 4);

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 255, 1), 4);

    EXPECT_EQ(SegmentFile("a").u8(at::quality), 7);
}

TEST(ShmWrite, WithQuality254StoresIt)
{
    const DeclaredSegment shm("a");

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 254, 1), 4);

    EXPECT_EQ(SegmentFile("a").u8(at::quality), 254);
}

TEST(ShmWrite, CountsAsSeenByItsOwnHandle)
{
    const DeclaredSegment shm("a");
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, future, 1, 1), 4);

    EXPECT_EQ(kp_shm_has_read(shm), 1);
    EXPECT_EQ(static_cast<kp_shm_t *>(shm)->last_update_ts, future);
}

TEST(ShmWrite, ClearsTheMarkOfAWriterThatDied)
{
    const DeclaredSegment shm("a");
    SegmentFile("a").put_u8(at::writing, 1);

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);

    EXPECT_EQ(SegmentFile("a").u8(at::writing), 0);
}

TEST(ShmWrite, MakesNoCallOfTheSystem)
{
    const DeclaredSegment shm("a");
    const CountCalls calls(kFallibleCalls.with(Call::usleep));

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);

    EXPECT_EQ(calls.count(), 0);
}

TEST(ShmWrite, ReportsANullHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(nullptr, &kNumber, 4, 1, 1, 1), -1);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_shm_write: shm is null\n\033[0m");
}

TEST(ShmWrite, ReportsAHandleWithoutAMapping)
{
    kp_shm_t shm{};
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(&shm, &kNumber, 4, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_write: shm memory is not exist"});
}

TEST(ShmWrite, ToAnUndeclaredSegmentFailsWithADebugLine)
{
    const OpenedSegment shm("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: kp_shm_write: " + kUndeclared + "\n\033[0m");
}

} // namespace
