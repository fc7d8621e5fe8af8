// Reading through tags and by topic.
#include "core/mesh.h"

using namespace kptest;

namespace {

class Read : public testing::Test {
  protected:
    Read()
    {
        writer_.write(42, 7);
    }

    const SegmentFile segment_{"a"};
    const Handle handle_;
    Writer writer_{"a"};
    kp_tag_t *const tag_ = kp_tag_consumer_new(handle_, "a");
    int32_t value_ = -1;
};

TEST_F(Read, CopiesTheValueAndMarksItAsSeen)
{
    writer_.write(43);
    ASSERT_EQ(kp_tag_has_read(tag_), 0);

    EXPECT_EQ(kp_tag_read(tag_, &value_, sizeof(value_)), 4);

    EXPECT_EQ(value_, 43);
    EXPECT_EQ(kp_tag_has_read(tag_), 1);
}

TEST_F(Read, NeedsATagAndThenABuffer)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_read(nullptr, nullptr, 0), -1);
    EXPECT_EQ(kp_tag_read(tag_, nullptr, 4), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_read: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_read: value is null\n\033[0m");
}

TEST_F(Read, PassesTheFailureOfTheStoreOn)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_read(tag_, &value_, 3), -1);

    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_shm_read: value_buffer_size(3) < written_value_size(4)"});
    EXPECT_EQ(value_, -1);
}

// A read by a tag takes a shorter way than the one of the store while nothing speaks against it.
TEST_F(Read, WaitsForAWriterThatEnds)
{
    segment_.put_u8(at::writing, 1);
    const Before third_pause{Call::usleep,
                             [this] {
                                 segment_.put_u32(at::value, 43);
                                 segment_.put_u8(at::writing, 0);
                             },
                             3};

    EXPECT_EQ(kp_tag_read(tag_, &value_, sizeof(value_)), 4);

    EXPECT_EQ(value_, 43);
}

TEST_F(Read, GivesUpOnAWriterThatDoesNotEnd)
{
    segment_.put_u8(at::writing, 1);
    const CountCalls pauses(Call::usleep);

    EXPECT_EQ(kp_tag_read(tag_, &value_, sizeof(value_)), -1);

    EXPECT_EQ(pauses.count(), 10);
    EXPECT_EQ(value_, -1);
}

TEST_F(Read, PausesForNothingWithoutAWriter)
{
    const CountCalls pauses(Call::usleep);

    EXPECT_EQ(kp_tag_read(tag_, &value_, sizeof(value_)), 4);

    EXPECT_EQ(pauses.count(), 0);
}

TEST_F(Read, RefusesAStringThatWasNeverWritten)
{
    kp_tag_t *const text = kp_tag_provider_new(handle_, "t", KP_TYPE_STRING, 10, 0);
    ASSERT_NE(text, nullptr);
    StderrCapture log;

    EXPECT_EQ(kp_tag_read(text, &value_, sizeof(value_)), -1);

    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_shm_read: written_value_size is 0, cannot read anything. "
                    "please write first"});
    EXPECT_EQ(value_, -1);
}

TEST_F(Read, RefusesATopicThatNobodyHasDeclared)
{
    kp_tag_t *const consumer = kp_tag_consumer_new(handle_, "undeclared");
    ASSERT_NE(consumer, nullptr);
    SegmentFile("undeclared").put_u32(at::written_value_size, 4);

    EXPECT_EQ(kp_tag_read(consumer, &value_, sizeof(value_)), -1);

    EXPECT_EQ(value_, -1);
}

TEST_F(Read, WithTimestampGivesTheTimeOfTheWrite)
{
    uint64_t timestamp = 0;

    EXPECT_EQ(kp_tag_read_with_timestamp(tag_, &value_, sizeof(value_), &timestamp), 4);

    EXPECT_EQ(value_, 42);
    EXPECT_EQ(timestamp, segment_.u64(at::last_write_ts));
}

TEST_F(Read, WithTimestampNeedsNeitherBufferNorOutput)
{
    writer_.write(43);

    EXPECT_EQ(kp_tag_read_with_timestamp(tag_, nullptr, 4, nullptr), 4);

    EXPECT_EQ(kp_tag_has_read(tag_), 1);
}

TEST_F(Read, WithTimestampNeedsATagAndStoresNothingWithoutOne)
{
    uint64_t timestamp = 5;
    StderrCapture log;

    EXPECT_EQ(kp_tag_read_with_timestamp(nullptr, &value_, 4, &timestamp), -1);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_read_with_timestamp: tag is null"});
    EXPECT_EQ(timestamp, 5U);
    EXPECT_EQ(value_, -1);
}

TEST_F(Read, WithSourceParamsGivesQualityAndSourceTime)
{
    uint32_t quality = UINT32_MAX;
    uint64_t source_ts = 0;

    EXPECT_EQ(kp_tag_read_with_source_params(tag_, &value_, 4, &quality, &source_ts), 4);

    EXPECT_EQ(value_, 42);
    EXPECT_EQ(quality, 7U);
    EXPECT_EQ(source_ts, segment_.u64(at::source_ts));
}

TEST_F(Read, WithSourceParamsNeedsNoOutputs)
{
    EXPECT_EQ(kp_tag_read_with_source_params(tag_, nullptr, 4, nullptr, nullptr), 4);
}

TEST_F(Read, WithSourceParamsGivesQualityZeroWhenItFails)
{
    uint32_t quality = 99;
    uint64_t source_ts = 99;
    StderrCapture log;

    EXPECT_EQ(kp_tag_read_with_source_params(tag_, &value_, 3, &quality, &source_ts), -1);

    EXPECT_EQ(quality, 0U);
    EXPECT_EQ(source_ts, 99U);
}

TEST_F(Read, WithSourceParamsNeedsATagAndStoresNothingWithoutOne)
{
    uint32_t quality = 99;
    uint64_t source_ts = 99;
    StderrCapture log;

    EXPECT_EQ(kp_tag_read_with_source_params(nullptr, &value_, 4, &quality, &source_ts), -1);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_read_with_source_params: tag is null"});
    EXPECT_EQ(quality, 99U);
    EXPECT_EQ(source_ts, 99U);
}

TEST_F(Read, ByTopicGivesANewBufferAndEverythingAboutTheValue)
{
    segment_.put_u32(at::extra_info, 55);
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint64_t source_ts = 0;
    uint32_t extra_info = 0;

    EXPECT_EQ(kp_tag_instant_read("a", &value, &type, &size, &quality, &source_ts, &extra_info), 0);

    EXPECT_EQ(*static_cast<int32_t *>(value), 42);
    EXPECT_EQ(type, 3U);
    EXPECT_EQ(size, 4U);
    EXPECT_EQ(quality, 7);
    EXPECT_EQ(source_ts, segment_.u64(at::source_ts));
    EXPECT_EQ(extra_info, 55U);
    std::free(value);
}

TEST_F(Read, ByTopicNeedsTheFirstThreeOutputsOnly)
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;

    EXPECT_EQ(kp_tag_instant_read("a", &value, &type, &size, nullptr, nullptr, nullptr), 0);

    std::free(value);
}

TEST_F(Read, ByTopicChecksValueTypeAndSizeInThisOrderBeforeTheTopic)
{
    void *value = &value_;
    uint32_t type = 99;
    uint32_t size = 99;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_tag_instant_read(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              -1);
    EXPECT_EQ(kp_tag_instant_read(nullptr, &value, nullptr, nullptr, nullptr, nullptr, nullptr),
              -1);
    EXPECT_EQ(kp_tag_instant_read(nullptr, &value, &type, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kp_tag_instant_read(nullptr, &value, &type, &size, nullptr, nullptr, nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_instant_read: value is null\n\033[0m"
              "\033[91mERROR: kp_tag_instant_read: value type is null\n\033[0m"
              "\033[91mERROR: kp_tag_instant_read: value size is null\n\033[0m"
              "\033[91mERROR: kp_shm_instant_read: topic is null\n\033[0m");
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(value, &value_);
    EXPECT_EQ(type, 99U);
    EXPECT_EQ(size, 99U);
}

TEST_F(Read, ByTopicSaysOnStandardOutputThatTheTopicIsMissing)
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_tag_instant_read("missing", &value, &type, &size, nullptr, nullptr, nullptr), -1);

    EXPECT_EQ(output.text(), "access failed\n");
    EXPECT_EQ(log.text(), "");
}

} // namespace
