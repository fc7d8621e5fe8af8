// kp_tag_read_consistent(): its checks and messages, and what it passes on. The read itself is
// tested with the store.
#include "testing/capture.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <gtest/gtest.h>

using namespace kptest;

namespace {

class TagReadConsistent : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(handle_ && consumer_);
    }
    void TearDown() override
    {
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }
    kp_tag_t *provide(uint32_t type, uint32_t size)
    {
        return kp_tag_provider_new(handle_, "a/b", type, size, 0);
    }

    kp_t *handle_ = kp_new("tester", nullptr);
    kp_tag_t *consumer_ = kp_tag_consumer_new(handle_, "a/b");
};

} // namespace

TEST_F(TagReadConsistent, GivesTheValueWithQualityAndBothTimestamps)
{
    kp_tag_t *provider = provide(KP_TYPE_STRING, 10);
    ASSERT_EQ(kp_tag_write_with_source_params(handle_, provider, "hello", 5, 42, 1234), 5);
    uint64_t expected_timestamp = 0;
    ASSERT_EQ(kp_tag_get_last_write_timestamp(provider, &expected_timestamp), 0);
    char value[10] = {};
    uint32_t quality = 0;
    uint64_t timestamp = 0;
    uint64_t source_ts = 0;

    const int32_t result =
        kp_tag_read_consistent(consumer_, value, sizeof(value), &quality, &timestamp, &source_ts);

    EXPECT_EQ(result, 5);
    EXPECT_STREQ(value, "hello");
    EXPECT_EQ(quality, 42U);
    EXPECT_EQ(timestamp, expected_timestamp);
    EXPECT_EQ(source_ts, 1234U);
    EXPECT_EQ(kp_tag_has_read(consumer_), 1);
}

TEST_F(TagReadConsistent, NeedsNoneOfTheOutputs)
{
    kp_tag_t *provider = provide(KP_TYPE_UINT32, 0);
    const uint32_t written = 7;
    ASSERT_EQ(kp_tag_write(handle_, provider, &written, 4), 4);

    const int32_t result = kp_tag_read_consistent(consumer_, nullptr, 4, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, 4);
}

TEST_F(TagReadConsistent, RefusesANullTag)
{
    StderrCapture log;
    char value[4];
    uint32_t quality = 9;

    const int32_t result = kp_tag_read_consistent(nullptr, value, 4, &quality, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_read_consistent: tag is null"});
    EXPECT_EQ(quality, 9U);
}

TEST_F(TagReadConsistent, FailsForATopicThatNoProviderDeclared)
{
    kp_xlog_set_user_level(KP_LEVEL_DEBUG);
    StderrCapture log;
    char value[4];

    const int32_t result = kp_tag_read_consistent(consumer_, value, 4, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.lines(), Lines{"DEBUG: kp_tag_read_consistent: shm is invalid. tag size and tag "
                                 "type should be set by provider."});
}

TEST_F(TagReadConsistent, FailsForATopicWithoutAValueAndSetsTheQualityToZero)
{
    (void)provide(KP_TYPE_STRING, 10);
    StderrCapture log;
    char value[10];
    uint32_t quality = 9;

    const int32_t result = kp_tag_read_consistent(consumer_, value, 10, &quality, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(quality, 0U);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_tag_read_consistent: written_value_size is 0, cannot "
                                 "read anything. please write first"});
}

TEST_F(TagReadConsistent, FailsForABufferThatIsTooSmallAndMarksNothing)
{
    kp_tag_t *provider = provide(KP_TYPE_STRING, 10);
    ASSERT_EQ(kp_tag_write_with_timestamp(handle_, provider, "hello", 5, UINT64_MAX / 2), 5);
    StderrCapture log;
    char value[4];

    const int32_t result = kp_tag_read_consistent(consumer_, value, 4, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_tag_read_consistent: value_buffer_size(4) < written_value_size(5)"});
    EXPECT_EQ(kp_tag_has_read(consumer_), 0);
}

TEST_F(TagReadConsistent, GivesUpWhileAWriteDoesNotEnd)
{
    kp_tag_t *provider = provide(KP_TYPE_STRING, 10);
    ASSERT_EQ(kp_tag_write(handle_, provider, "hello", 5), 5);
    SegmentFile("a/b").put_u8(at::writing, 1);
    kp_xlog_set_user_level(KP_LEVEL_INFO);
    StderrCapture log;
    char value[10];

    const int32_t result = kp_tag_read_consistent(consumer_, value, 10, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.lines(), Lines{"INFO: kp_tag_read_consistent: shm read fail"});
}
