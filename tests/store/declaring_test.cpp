// What a provider declares of an open segment, and the clock.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <ctime>
#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

const std::string kZeros(4080, '\0');

TEST(DeclaringASegment, StoresTypeMaximumAndExtraInformation)
{
    const OpenedSegment shm("a");

    EXPECT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_STRING, 100, 0xCAFEF00D), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::value_type), 11U);
    EXPECT_EQ(SegmentFile("a").u32(at::max_value_size), 100U);
    EXPECT_EQ(SegmentFile("a").u32(at::extra_info), 0xCAFEF00DU);
    EXPECT_EQ(SegmentFile("a").u8(at::flags), kValidFlag);
}

TEST(DeclaringASegment, OfAFixedSizeGivesItThatSize)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);

    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 4U);
}

TEST(DeclaringASegment, OfAVariableSizeLeavesItWithoutASize)
{
    const DeclaredSegment string("a", KP_TYPE_STRING, 100);
    const DeclaredSegment bytes("b", KP_TYPE_BYTEARRAY, 100);
    const DeclaredSegment raw("c", KP_TYPE_RAW, 100);

    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("b").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("c").u32(at::written_value_size), 0U);
}

TEST(DeclaringASegment, AgainClearsTheOldValueUpToTheNewMaximum)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 10);
    ASSERT_EQ(kp_shm_write(shm, "0123456789", 10, 1, 1, 1), 10);

    ASSERT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_STRING, 4, 0), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::flags), kValidFlag);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 10), kZeros.substr(0, 4) + "456789");
}

TEST(DeclaringASegment, KeepsTheUnusedFlags)
{
    const OpenedSegment shm("a");
    SegmentFile("a").put_u8(at::flags, 0xFE);

    ASSERT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_INT8, 1, 0), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::flags), 0xFD);
}

TEST(DeclaringASegment, LeavesTimesQualityAndCountsAlone)
{
    const OpenedSegment shm("a");
    const SegmentFile file("a");
    file.put_u8(at::quality, 9);
    file.put_u64(at::source_ts, 8);
    file.put_u64(at::last_write_ts, 7);

    ASSERT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_INT8, 1, 0), 0);

    EXPECT_EQ(file.u8(at::quality), 9);
    EXPECT_EQ(file.u64(at::source_ts), 8U);
    EXPECT_EQ(file.u64(at::last_write_ts), 7U);
    EXPECT_EQ(file.u8(at::provider_refs), 1);
}

TEST(DeclaringASegment, OfAnUnknownTypeReportsItAndGivesItNoSize)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_set_provider_info(shm, 14, 4, 0), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_get_value_size: value type is invalid"});
    EXPECT_EQ(SegmentFile("a").u32(at::value_type), 14U);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 0U);
}

TEST(DeclaringASegment, LargerThanItsValueAreaClearsNoMoreThanThat)
{
    const OpenedSegment shm("a");

    EXPECT_EQ(kp_shm_set_provider_info(shm, KP_TYPE_RAW, UINT32_MAX, 0), 0);
    EXPECT_EQ(SegmentFile("a").u32(at::max_value_size), UINT32_MAX);
}

TEST(DeclaringASegment, ReportsANullHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_set_provider_info(nullptr, KP_TYPE_INT8, 1, 0), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_set_provider_info: shm is null"});
}

TEST(DeclaringASegment, ReportsAHandleWithoutAMapping)
{
    kp_shm_t shm{};
    StderrCapture log;

    EXPECT_EQ(kp_shm_set_provider_info(&shm, KP_TYPE_INT8, 1, 0), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_set_provider_info: shm memory is null"});
}

TEST(InitialSourceParameters, AreZero)
{
    const OpenedSegment shm("a");
    SegmentFile("a").put_u8(at::quality, 9);
    SegmentFile("a").put_u64(at::source_ts, 8);

    EXPECT_EQ(kp_shm_init_source_params(shm), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::quality), 0);
    EXPECT_EQ(SegmentFile("a").u64(at::source_ts), 0U);
}

TEST(InitialSourceParameters, NeedAHandleWithAMapping)
{
    kp_shm_t shm{};
    StderrCapture log;

    EXPECT_EQ(kp_shm_init_source_params(nullptr), -1);
    EXPECT_EQ(kp_shm_init_source_params(&shm), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_init_source_params: shm is invalid",
                                  "ERROR: kp_shm_init_source_params: shm is invalid"}));
}

TEST(LastUpdateOfAHandle, IsWhatIsSet)
{
    const OpenedSegment shm("a");

    kp_shm_set_last_update_ts(shm, 5);

    EXPECT_EQ(static_cast<kp_shm_t *>(shm)->last_update_ts, 5U);
    EXPECT_NE(SegmentFile("a").u64(at::last_write_ts), 5U);
}

TEST(LastUpdateOfAHandle, IsIgnoredForNull)
{
    StderrCapture log;

    kp_shm_set_last_update_ts(nullptr, 5);

    EXPECT_EQ(log.text(), "");
}

TEST(Timestamp, IsTheWallClockInMicroseconds)
{
    const auto before = static_cast<uint64_t>(std::time(nullptr)) - 1;
    const uint64_t now = kp_shm_get_timestamp_us();
    const auto after = static_cast<uint64_t>(std::time(nullptr)) + 1;

    EXPECT_GE(now, before * 1'000'000);
    EXPECT_LE(now, after * 1'000'000);
}

} // namespace
