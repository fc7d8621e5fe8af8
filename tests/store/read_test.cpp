// Reading through an open segment.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <array>
#include <chrono>
#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

using Buffer = std::array<char, 128>;

// What a read gives besides its result; preset to what no test writes.
struct Outputs {
    uint64_t timestamp = 91;
    uint8_t quality = 92;
    uint64_t source_ts = 93;

    bool operator==(const Outputs &) const = default;
};

int32_t read(kp_shm_t *shm, void *buffer, uint32_t size, Outputs &outputs)
{
    return kp_shm_read(shm, buffer, size, &outputs.timestamp, &outputs.quality, &outputs.source_ts);
}

int32_t read_quietly(kp_shm_t *shm, void *buffer, uint32_t size)
{
    return kp_shm_read(shm, buffer, size, nullptr, nullptr, nullptr);
}

TEST(ShmRead, GivesTheValueAndAllThatBelongsToIt)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 11, 12, 13), 5);
    Buffer buffer{};
    Outputs outputs;

    EXPECT_EQ(read(shm, buffer.data(), buffer.size(), outputs), 5);
    EXPECT_STREQ(buffer.data(), "hello");
    EXPECT_EQ(outputs, (Outputs{11, 12, 13}));
}

TEST(ShmRead, TakesNullForEveryOutput)
{
    const DeclaredSegment shm("a");
    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);
    uint32_t number = 0;

    EXPECT_EQ(read_quietly(shm, &number, 4), 4);
    EXPECT_EQ(number, kNumber);
}

TEST(ShmRead, CopiesNoMoreThanTheValue)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    ASSERT_EQ(kp_shm_write(shm, "long text", 9, 1, 1, 1), 9);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    Buffer buffer;
    buffer.fill('.');

    EXPECT_EQ(read_quietly(shm, buffer.data(), buffer.size()), 5);
    EXPECT_EQ(std::string(buffer.data(), 6), "hello.");
}

TEST(ShmRead, IntoTooSmallABufferFailsAndMarksNothingAsSeen)
{
    const DeclaredSegment provider("a", KP_TYPE_STRING, 100);
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;
    ASSERT_EQ(kp_shm_write(provider, "hello", 5, future, 1, 1), 5);
    Buffer buffer{};
    Outputs outputs;
    StderrCapture log;

    EXPECT_EQ(read(consumer, buffer.data(), 4, outputs), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_shm_read: value_buffer_size(4) < written_value_size(5)\n\033[0m");
    EXPECT_EQ(kp_shm_has_read(consumer), 0);
    EXPECT_EQ(buffer, Buffer{});
    EXPECT_EQ(outputs, Outputs{});
}

TEST(ShmRead, WithoutABufferMarksTheValueAsSeenAndReturnsItsSize)
{
    const DeclaredSegment provider("a", KP_TYPE_STRING, 100);
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;
    ASSERT_EQ(kp_shm_write(provider, "hello", 5, future, 1, 1), 5);

    EXPECT_EQ(read_quietly(consumer, nullptr, 5), 5);
    EXPECT_EQ(kp_shm_has_read(consumer), 1);
}

TEST(ShmRead, WithoutABufferNeedsALargeEnoughSizeAllTheSame)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    StderrCapture log;

    EXPECT_EQ(read_quietly(shm, nullptr, 0), -1);
    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_shm_read: value_buffer_size(0) < written_value_size(5)"});
}

TEST(ShmRead, OfAFixedSizeGivesZerosBeforeTheFirstWrite)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    uint32_t number = 1;

    EXPECT_EQ(read_quietly(shm, &number, 4), 4);
    EXPECT_EQ(number, 0U);
}

TEST(ShmRead, OfAVariableSizeFailsBeforeTheFirstWrite)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    Buffer buffer{};
    StderrCapture log;

    EXPECT_EQ(read_quietly(shm, buffer.data(), buffer.size()), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_shm_read: written_value_size is 0, cannot read anything. "
              "please write first\n\033[0m");
}

TEST(ShmRead, OfAnUndeclaredSegmentFailsWithADebugLine)
{
    const OpenedSegment shm("a", KP_ROLE_CONSUMER);
    const LogLevel debug(KP_LEVEL_DEBUG);
    Buffer buffer{};
    StderrCapture log;

    EXPECT_EQ(read_quietly(shm, buffer.data(), buffer.size()), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: kp_shm_read: " + kUndeclared + "\n\033[0m");
}

TEST(ShmRead, ByAConsumerThatCameFirstSucceedsOnceTheProviderDeclares)
{
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    uint32_t number = 1;
    ASSERT_EQ(read_quietly(consumer, &number, 4), -1);

    const DeclaredSegment provider("a", KP_TYPE_UINT32, 4);

    EXPECT_EQ(read_quietly(consumer, &number, 4), 4);
}

TEST(ShmRead, ReportsANullHandle)
{
    StderrCapture log;

    EXPECT_EQ(read_quietly(nullptr, nullptr, 0), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_read: shm is null"});
}

TEST(ShmRead, ReportsAHandleWithoutAMapping)
{
    kp_shm_t shm{};
    StderrCapture log;

    EXPECT_EQ(read_quietly(&shm, nullptr, 0), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_read: shm memory is not exist"});
}

TEST(ShmRead, GivesUpAfterTenPausesForAWriterThatDoesNotEnd)
{
    const DeclaredSegment provider("a");
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;
    ASSERT_EQ(kp_shm_write(provider, &kNumber, 4, future, 1, 1), 4);
    SegmentFile("a").put_u8(at::writing, 1);
    const LogLevel info(KP_LEVEL_INFO);
    uint32_t number = 0;
    StderrCapture log;
    const CountCalls pauses(Call::usleep);

    EXPECT_EQ(read_quietly(consumer, &number, 4), -1);
    EXPECT_EQ(pauses.count(), 10);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[96mINFO: kp_shm_read: shm read fail\n\033[0m");
    EXPECT_EQ(number, 0U);
    EXPECT_EQ(kp_shm_has_read(consumer), 0);
}

TEST(ShmRead, GivesUpSoonOnAWriterThatDoesNotEnd)
{
    const DeclaredSegment shm("a");
    SegmentFile("a").put_u8(at::writing, 1);
    uint32_t number = 0;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(read_quietly(shm, &number, 4), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(ShmRead, DoesNotLookAgainAfterItsLastPause)
{
    const DeclaredSegment shm("a");
    SegmentFile("a").put_u8(at::writing, 1);
    uint32_t number = 0;
    Before last_pause{Call::usleep, [] { SegmentFile("a").put_u8(at::writing, 0); }, 10};

    EXPECT_EQ(read_quietly(shm, &number, 4), -1);
}

TEST(ShmRead, WaitsForAWriterThatEnds)
{
    const DeclaredSegment shm("a");
    ASSERT_EQ(kp_shm_write(shm, &kNumber, 4, 1, 1, 1), 4);
    SegmentFile("a").put_u8(at::writing, 1);
    uint32_t number = 0;
    Before ninth_pause{Call::usleep, [] { SegmentFile("a").put_u8(at::writing, 0); }, 9};

    EXPECT_EQ(read_quietly(shm, &number, 4), 4);
    EXPECT_EQ(number, kNumber);
}

TEST(ShmRead, TakesOnlyOneForTheWritersMark)
{
    const DeclaredSegment shm("a");
    SegmentFile("a").put_u8(at::writing, 2);
    uint32_t number = 0;

    EXPECT_EQ(read_quietly(shm, &number, 4), 4);
}

TEST(ShmRead, MakesNoCallOfTheSystemWithoutAWriter)
{
    const DeclaredSegment shm("a");
    uint32_t number = 0;
    const CountCalls calls(kFallibleCalls.with(Call::usleep));

    ASSERT_EQ(read_quietly(shm, &number, 4), 4);

    EXPECT_EQ(calls.count(), 0);
}

} // namespace
