// Questions about tags and topics that move no value.
#include "core/mesh.h"

#include <sys/time.h>

using namespace kptest;

namespace {

class Query : public testing::Test {
  protected:
    const Handle handle_;
    Writer writer_{"a", KP_TYPE_INT32, 4};
    kp_tag_t *const tag_ = kp_tag_consumer_new(handle_, "a");
    kp_tag_t *const undeclared_ = kp_tag_consumer_new(handle_, "undeclared");
    kp_tag_t without_segment_{};
    uint32_t first_ = 99;
    uint32_t second_ = 99;
    uint32_t third_ = 99;
};

TEST_F(Query, ForTheLastWriteGivesItsTime)
{
    uint64_t timestamp = 0;
    writer_.write(1);

    EXPECT_EQ(kp_tag_get_last_write_timestamp(tag_, &timestamp), 0);
    EXPECT_EQ(kp_tag_get_last_write_timestamp(tag_, nullptr), 0);

    EXPECT_EQ(timestamp, SegmentFile("a").u64(at::last_write_ts));
}

TEST_F(Query, ForAChangeTellsAWriteUntilItIsRead)
{
    int32_t value = 0;
    writer_.write(1);

    EXPECT_EQ(kp_tag_has_changed(tag_), 1);
    ASSERT_EQ(kp_tag_read(tag_, &value, 4), 4);
    EXPECT_EQ(kp_tag_has_changed(tag_), 0);
}

TEST_F(Query, ForAChangeTellsAWriteThatAClockSetBackHides)
{
    int32_t value = 7;
    SegmentFile("a").put_u8(at::quality, 1);
    SegmentFile("a").put_u64(at::last_write_ts, 5'000);
    ASSERT_EQ(kp_tag_read(tag_, &value, 4), 4);

    SegmentFile("a").put_u64(at::last_write_ts, 4'000);

    EXPECT_EQ(kp_tag_has_read(tag_), 1);
    EXPECT_EQ(kp_tag_need_read(tag_), 0);
    EXPECT_EQ(kp_tag_has_changed(tag_), 1);
}

TEST_F(Query, ForAChangeTellsNoneOfTheTagsOwnWrite)
{
    int32_t value = 7;
    kp_tag_t *provider = kp_tag_provider_new(handle_, "own", KP_TYPE_INT32, 4, 0);

    EXPECT_EQ(kp_tag_has_changed(provider), 0);
    ASSERT_EQ(kp_tag_write(handle_, provider, &value, 4), 4);
    EXPECT_EQ(kp_tag_has_changed(provider), 0);
}

TEST_F(Query, ForAChangeNeedsATagWithASegment)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_has_changed(nullptr), 0);
    EXPECT_EQ(kp_tag_has_changed(&without_segment_), 0);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_tag_has_changed: tag is null",
                                  "ERROR: kp_tag_has_changed: shm is null"}));
}

TEST_F(Query, ForTheLastWriteNeedsNoDeclaration)
{
    uint64_t timestamp = 0;

    EXPECT_EQ(kp_tag_get_last_write_timestamp(undeclared_, &timestamp), 0);

    EXPECT_EQ(timestamp, SegmentFile("undeclared").u64(at::last_write_ts));
}

TEST_F(Query, ForTheLastWriteNeedsATagWithASegment)
{
    uint64_t timestamp = 99;
    StderrCapture log;

    EXPECT_EQ(kp_tag_get_last_write_timestamp(nullptr, &timestamp), -1);
    EXPECT_EQ(kp_tag_get_last_write_timestamp(&without_segment_, &timestamp), -1);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_tag_get_last_write_timestamp: tag is null",
                                  "ERROR: kp_shm_get_last_write_timestamp: shm is null"}));
    EXPECT_EQ(timestamp, 99U);
}

TEST_F(Query, ForTheValueGivesTypeSizeAndExtraInfo)
{
    SegmentFile("a").put_u32(at::extra_info, 55);

    EXPECT_EQ(kp_tag_get_value_info(tag_, &first_, &second_, &third_), 0);
    EXPECT_EQ(kp_tag_get_value_info(tag_, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(first_, 3U);
    EXPECT_EQ(second_, 4U);
    EXPECT_EQ(third_, 55U);
}

TEST_F(Query, ForTheValueNeedsATagThenASegmentThenADeclaration)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_get_value_info(nullptr, &first_, &second_, &third_), -1);
    EXPECT_EQ(kp_tag_get_value_info(&without_segment_, &first_, &second_, &third_), -1);
    EXPECT_EQ(kp_tag_get_value_info(undeclared_, &first_, &second_, &third_), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_get_value_info: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_get_value_info: shm is null\n\033[0m");
    EXPECT_EQ(first_, 99U);
    EXPECT_EQ(second_, 99U);
    EXPECT_EQ(third_, 99U);
}

TEST_F(Query, ForTheMaximumGivesWhatWasDeclared)
{
    EXPECT_EQ(kp_tag_get_max_value_size(tag_, &first_), 0);

    EXPECT_EQ(first_, 4U);
}

TEST_F(Query, ForTheMaximumChecksTagSegmentDeclarationAndOutputInTurn)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_get_max_value_size(nullptr, nullptr), -1);
    EXPECT_EQ(kp_tag_get_max_value_size(&without_segment_, nullptr), -1);
    EXPECT_EQ(kp_tag_get_max_value_size(undeclared_, nullptr), -1);
    EXPECT_EQ(kp_tag_get_max_value_size(tag_, nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_get_max_value_size: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_get_max_value_size: shm is null\n\033[0m"
              "\033[91mERROR: kp_shm_get_max_value_size: max_value_size is null\n\033[0m");
}

TEST_F(Query, ByTopicNeedsNoTag)
{
    SegmentFile("a").put_u32(at::extra_info, 55);
    uint32_t max_value_size = 0;
    uint32_t providers = 0;
    uint32_t consumers = 0;

    EXPECT_EQ(kp_tag_instant_get_value_info("a", &first_, &second_, &third_), 0);
    EXPECT_EQ(kp_tag_instant_get_max_value_size("a", &max_value_size), 0);
    EXPECT_EQ(kp_tag_get_reference_count("a", &providers, &consumers), 0);

    EXPECT_EQ(first_, 3U);
    EXPECT_EQ(second_, 4U);
    EXPECT_EQ(third_, 55U);
    EXPECT_EQ(max_value_size, 4U);
    EXPECT_EQ(providers, 1U);
    EXPECT_EQ(consumers, 1U);
}

TEST_F(Query, ByTopicNeedsNoOutputs)
{
    EXPECT_EQ(kp_tag_instant_get_value_info("a", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(kp_tag_instant_get_max_value_size("a", nullptr), 0);
    EXPECT_EQ(kp_tag_get_reference_count("a", nullptr, nullptr), 0);
}

TEST_F(Query, ByTopicNeedsATopic)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_instant_get_value_info(nullptr, &first_, &second_, &third_), -1);
    EXPECT_EQ(kp_tag_instant_get_max_value_size(nullptr, &first_), -1);
    EXPECT_EQ(kp_tag_get_reference_count(nullptr, &first_, &second_), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_instant_get_value_info: topic is null\n\033[0m"
              "\033[91mERROR: kp_tag_instant_get_max_value_size: topic is null\n\033[0m"
              "\033[91mERROR: kp_tag_get_reference_count: topic is null\n\033[0m");
    EXPECT_EQ(first_, 99U);
    EXPECT_EQ(second_, 99U);
    EXPECT_EQ(third_, 99U);
}

TEST_F(Query, ByTopicSaysOnStandardOutputThatTheTopicIsMissing)
{
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_tag_instant_get_value_info("missing", &first_, nullptr, nullptr), -1);
    EXPECT_EQ(kp_tag_instant_get_max_value_size("missing", &first_), -1);
    EXPECT_EQ(kp_tag_get_reference_count("missing", &first_, nullptr), -1);

    EXPECT_EQ(output.text(), "access failed\naccess failed\naccess failed\n");
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(first_, 99U);
}

TEST_F(Query, ByTopicFailsForAnUndeclaredOne)
{
    EXPECT_EQ(kp_tag_instant_get_value_info("undeclared", &first_, nullptr, nullptr), -1);
    EXPECT_EQ(kp_tag_instant_get_max_value_size("undeclared", &first_), -1);
    EXPECT_EQ(kp_tag_get_reference_count("undeclared", &first_, nullptr), -1);

    EXPECT_EQ(first_, 99U);
}

TEST_F(Query, WhetherReadFollowsWritesAndReads)
{
    int32_t value = 0;

    EXPECT_EQ(kp_tag_has_read(tag_), 1);
    writer_.write(1);
    EXPECT_EQ(kp_tag_has_read(tag_), 0);
    EXPECT_EQ(kp_tag_need_read(tag_), 1);
    ASSERT_EQ(kp_tag_read(tag_, &value, sizeof(value)), 4);
    EXPECT_EQ(kp_tag_has_read(tag_), 1);
    EXPECT_EQ(kp_tag_need_read(tag_), 0);
}

TEST_F(Query, WhetherAReadIsNeededIsNoForQualityZero)
{
    writer_.write(1, KP_QUALITY_NONE);

    EXPECT_EQ(kp_tag_has_read(tag_), 0);
    EXPECT_EQ(kp_tag_need_read(tag_), 0);
}

TEST_F(Query, WhetherThereIsAValueIsNoUntilTheFirstWrite)
{
    EXPECT_EQ(kp_tag_has_value(tag_), 0);

    writer_.write(1);

    EXPECT_EQ(kp_tag_has_value(tag_), 1);
}

TEST_F(Query, WithoutATagHasNothingToRead)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_has_read(nullptr), 1);
    EXPECT_EQ(kp_tag_need_read(nullptr), 0);
    EXPECT_EQ(kp_tag_has_value(nullptr), 0);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_has_read: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_need_read: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_has_value: tag is null\n\033[0m");
}

TEST_F(Query, OfATagWithoutASegmentIsAnsweredByTheStore)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_has_read(&without_segment_), 1);
    EXPECT_EQ(kp_tag_need_read(&without_segment_), 0);
    EXPECT_EQ(kp_tag_has_value(&without_segment_), 0);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_has_read: shm is null",
                                  "ERROR: kp_shm_get_quality: shm is null",
                                  "ERROR: kp_shm_has_value: shm is null"}));
}

TEST_F(Query, ForTheTimeGivesTheWallClockInMicroseconds)
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    const auto before =
        static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);

    const uint64_t timestamp = kp_get_timestamp_us();

    EXPECT_GE(timestamp, before);
    EXPECT_LE(timestamp, before + 60'000'000);
}

} // namespace
