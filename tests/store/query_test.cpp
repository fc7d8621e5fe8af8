// The questions about an open segment.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/log_level.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

TEST(ReadInfo, GivesTypeSizeAndExtraInformation)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100, 77);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t extra = 0;

    EXPECT_EQ(kp_shm_get_read_info(shm, &type, &size, &extra), 0);
    EXPECT_EQ(type, 11U);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(extra, 77U);
}

TEST(ReadInfo, TakesNullForEveryOutput)
{
    const DeclaredSegment shm("a");

    EXPECT_EQ(kp_shm_get_read_info(shm, nullptr, nullptr, nullptr), 0);
}

TEST(ReadInfo, FailsInTheCommonWays)
{
    kp_shm_t unmapped{};
    const OpenedSegment undeclared("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    uint32_t type = 9;
    StderrCapture log;

    EXPECT_EQ(kp_shm_get_read_info(nullptr, &type, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_get_read_info(&unmapped, &type, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_get_read_info(undeclared, &type, nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_get_read_info: shm is null",
                                  "ERROR: kp_shm_get_read_info: shm memory is null",
                                  "DEBUG: kp_shm_get_read_info: " + kUndeclared}));
    EXPECT_EQ(type, 9U);
}

TEST(MaxValueSize, IsTheDeclaredOne)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    uint32_t size = 0;

    EXPECT_EQ(kp_shm_get_max_value_size(shm, &size), 0);
    EXPECT_EQ(size, 100U);
}

TEST(MaxValueSize, FailsInTheCommonWays)
{
    kp_shm_t unmapped{};
    const OpenedSegment undeclared("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    uint32_t size = 9;
    StderrCapture log;

    EXPECT_EQ(kp_shm_get_max_value_size(nullptr, &size), -1);
    EXPECT_EQ(kp_shm_get_max_value_size(&unmapped, &size), -1);
    EXPECT_EQ(kp_shm_get_max_value_size(undeclared, &size), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_get_max_value_size: shm is null",
                                  "ERROR: kp_shm_get_max_value_size: shm memory is null",
                                  "DEBUG: kp_shm_get_max_value_size: " + kUndeclared}));
    EXPECT_EQ(size, 9U);
}

TEST(MaxValueSize, NeedsItsOutput)
{
    const DeclaredSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_get_max_value_size(shm, nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_get_max_value_size: max_value_size is null"});
}

TEST(LastWriteTimestamp, IsGivenForAnUndeclaredSegmentToo)
{
    const OpenedSegment shm("a");
    SegmentFile("a").put_u64(at::last_write_ts, 11);
    uint64_t timestamp = 0;

    EXPECT_EQ(kp_shm_get_last_write_timestamp(shm, &timestamp), 0);
    EXPECT_EQ(timestamp, 11U);
}

TEST(LastWriteTimestamp, TakesNullForItsOutput)
{
    const OpenedSegment shm("a");

    EXPECT_EQ(kp_shm_get_last_write_timestamp(shm, nullptr), 0);
}

TEST(LastWriteTimestamp, NeedsAHandleWithAMapping)
{
    kp_shm_t unmapped{};
    uint64_t timestamp = 9;
    StderrCapture log;

    EXPECT_EQ(kp_shm_get_last_write_timestamp(nullptr, &timestamp), -1);
    EXPECT_EQ(kp_shm_get_last_write_timestamp(&unmapped, &timestamp), -1);
    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: kp_shm_get_last_write_timestamp: shm is null",
                     "ERROR: kp_shm_get_last_write_timestamp: shm memory is not exist"}));
    EXPECT_EQ(timestamp, 9U);
}

TEST(HasRead, IsTrueOfAFreshHandle)
{
    const DeclaredSegment provider("a");
    ASSERT_EQ(kp_shm_write(provider, &kNumber, 4, kp_shm_get_timestamp_us(), 1, 1), 4);

    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(kp_shm_has_read(consumer), 1);
}

TEST(HasRead, IsFalseAfterAnotherHandlesWriteUntilThisOneReads)
{
    const DeclaredSegment provider("a");
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;
    uint32_t number = 0;

    ASSERT_EQ(kp_shm_write(provider, &kNumber, 4, future, 1, 1), 4);
    EXPECT_EQ(kp_shm_has_read(consumer), 0);
    ASSERT_EQ(kp_shm_read(consumer, &number, 4, nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(kp_shm_has_read(consumer), 1);
}

TEST(HasRead, ComparesAcrossTheWrapOfTheClock)
{
    const OpenedSegment shm("a");
    kp_shm_set_last_update_ts(shm, 5);

    SegmentFile("a").put_u64(at::last_write_ts, UINT64_MAX - 5);
    EXPECT_EQ(kp_shm_has_read(shm), 1);
    SegmentFile("a").put_u64(at::last_write_ts, uint64_t{6} + INT64_MAX);
    EXPECT_EQ(kp_shm_has_read(shm), 0);
}

TEST(HasRead, IsTrueOfEqualTimes)
{
    const OpenedSegment shm("a");
    kp_shm_set_last_update_ts(shm, 5);

    SegmentFile("a").put_u64(at::last_write_ts, 5);
    EXPECT_EQ(kp_shm_has_read(shm), 1);
    SegmentFile("a").put_u64(at::last_write_ts, 6);
    EXPECT_EQ(kp_shm_has_read(shm), 0);
}

TEST(HasRead, OfANullHandleIsTrueAndReported)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_has_read(nullptr), 1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_has_read: shm is null"});
}

TEST(HasValue, IsTrueFromTheFirstWriteToTheNextDeclaration)
{
    const DeclaredSegment shm("a");
    EXPECT_EQ(kp_shm_has_value(shm), 0);

    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);
    EXPECT_EQ(kp_shm_has_value(shm), 1);
    ASSERT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_UINT32, 4, 0), 0);
    EXPECT_EQ(kp_shm_has_value(shm), 0);
}

TEST(HasValue, LooksAtItsOwnFlagAlone)
{
    const OpenedSegment shm("a");

    SegmentFile("a").put_u8(at::flags, 0xFD);
    EXPECT_EQ(kp_shm_has_value(shm), 0);
    SegmentFile("a").put_u8(at::flags, 0x02);
    EXPECT_EQ(kp_shm_has_value(shm), 1);
}

TEST(HasValue, OfANullHandleIsFalseAndReported)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_has_value(nullptr), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_has_value: shm is null"});
}

TEST(Quality, IsTheStoredOne)
{
    const OpenedSegment shm("a");
    SegmentFile("a").put_u8(at::quality, 255);

    EXPECT_EQ(kp_shm_get_quality(shm), 255);
}

TEST(Quality, OfANullHandleIsZeroAndReported)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_get_quality(nullptr), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_get_quality: shm is null"});
}

} // namespace
