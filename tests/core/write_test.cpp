// Writing through tags and by topic: sizes, times, qualities, marks, and the order of the checks.
#include "core/mesh.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int32_t kValue = 0x04030201;

const std::string kText(5000, 'x');

kp_tag_t *new_string(kp_t *handle, const char *topic, uint32_t max_value_size)
{
    return kp_tag_provider_new(handle, topic, KP_TYPE_STRING, max_value_size, 0);
}

class Write : public testing::Test {
  protected:
    ~Write() override
    {
        SegmentFile("i").remove(); // what instant writes leave
    }

    const Handle handle_;
    kp_tag_t *const number_ = kp_tag_provider_new(handle_, "a", KP_TYPE_INT32, 0, 0);
    const SegmentFile segment_{"a"};
};

TEST_F(Write, StoresTheBytesOfItsTypeWhateverSizeIsGiven)
{
    EXPECT_EQ(kp_tag_write(handle_, number_, &kValue, 100), 4);
    EXPECT_EQ(segment_.bytes(at::value, 5), std::string("\1\2\3\4\0", 5));
    EXPECT_EQ(kp_tag_write(handle_, number_, &kValue, 0), 4);
    EXPECT_EQ(segment_.u32(at::written_value_size), 4U);
    EXPECT_EQ(segment_.u8(at::flags), kValidFlag | kHasValueFlag);
}

TEST_F(Write, StoresTheBytesGivenForAVariableType)
{
    kp_tag_t *text = new_string(handle_, "t", 10);

    EXPECT_EQ(kp_tag_write(handle_, text, "hello", 5), 5);

    EXPECT_EQ(SegmentFile("t").u32(at::written_value_size), 5U);
    EXPECT_EQ(SegmentFile("t").bytes(at::value, 6), std::string("hello\0", 6));
}

TEST_F(Write, IsRefusedForAVariableTypeOfSizeZero)
{
    kp_tag_t *text = new_string(handle_, "t", 10);
    StderrCapture log;

    EXPECT_EQ(kp_tag_write(handle_, text, "", 0), -1);
    EXPECT_EQ(kp_tag_write_with_source_params(handle_, text, "", 0, 1, 1), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_write: value size is invalid\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_source_params: value size is invalid\n\033[0m");
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Write, IsCutTo4000Bytes)
{
    kp_tag_t *text = new_string(handle_, "t", 4000);

    EXPECT_EQ(kp_tag_write(handle_, text, kText.data(), 5000), 4000);

    EXPECT_EQ(SegmentFile("t").bytes(at::value, 4000), kText.substr(0, 4000));
    EXPECT_EQ(SegmentFile("t").u32(at::value + 4000), 0U);
}

TEST_F(Write, IsCutBeforeItIsComparedWithTheDeclaredMaximum)
{
    kp_tag_t *text = new_string(handle_, "t", 100);
    StderrCapture log;

    EXPECT_EQ(kp_tag_write(handle_, text, kText.data(), 5000), -1);

    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(4000) > max_value_size(100)"});
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Write, ThroughATagOfAnUndeclaredTopicNamesTheTopic)
{
    kp_tag_t *consumer = kp_tag_consumer_new(handle_, "un/declared");
    StderrCapture log;

    EXPECT_EQ(kp_tag_write(handle_, consumer, &kValue, 4), -1);
    EXPECT_EQ(kp_tag_write_with_source_params(handle_, consumer, &kValue, 4, 1, 1), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_write: get tag(un/declared) value type fail\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_source_params: get tag(un/declared) value type "
              "fail\n\033[0m");
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Write, OfAnUnknownTypeInTheSegmentIsRefused)
{
    segment_.put_u32(at::value_type, 14);
    StderrCapture log;

    EXPECT_EQ(kp_tag_write(handle_, number_, &kValue, 4), -1);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_get_value_size: value type is invalid",
                                  "ERROR: kp_tag_write: value size is invalid"}));
}

TEST_F(Write, StampsTimeSourceTimeAndQualityOne)
{
    const uint64_t before = kp_get_timestamp_us();

    ASSERT_EQ(kp_tag_write(handle_, number_, &kValue, 4), 4);

    EXPECT_GE(segment_.u64(at::last_write_ts), before);
    EXPECT_LE(segment_.u64(at::last_write_ts), kp_get_timestamp_us());
    EXPECT_EQ(segment_.u64(at::source_ts), segment_.u64(at::last_write_ts));
    EXPECT_EQ(segment_.u8(at::quality), 1);
}

TEST_F(Write, WithoutAValueRefreshesTheTimesAndMarks)
{
    ASSERT_EQ(kp_tag_write(handle_, number_, &kValue, 4), 4);
    ASSERT_EQ(kp_tag_notify(handle_), 0);
    segment_.put_u64(at::last_write_ts, 1);
    segment_.put_u64(at::source_ts, 1);

    EXPECT_EQ(kp_tag_write(handle_, number_, nullptr, 4), 0);

    EXPECT_GT(segment_.u64(at::last_write_ts), 1U);
    EXPECT_EQ(segment_.u64(at::source_ts), segment_.u64(at::last_write_ts));
    EXPECT_EQ(stored_int("a"), kValue);
    EXPECT_THAT(marks_of(handle_), ElementsAre(97));
}

TEST_F(Write, CountsAsReadByItsOwnTag)
{
    ASSERT_EQ(kp_tag_write(handle_, number_, &kValue, 4), 4);

    EXPECT_EQ(kp_tag_has_read(number_), 1);
    EXPECT_EQ(kp_tag_need_read(number_), 0);
}

TEST_F(Write, MarksTheBitOfItsHash)
{
    kp_tag_t *last = kp_tag_provider_new(handle_, "a@", KP_TYPE_INT32, 0, 0); // bucket 1023

    ASSERT_EQ(kp_tag_write(handle_, number_, &kValue, 4), 4);
    ASSERT_EQ(kp_tag_write(handle_, last, &kValue, 4), 4);

    EXPECT_EQ(handle_->write_info.bitmap[97 >> 3], 1 << (97 & 7));
    EXPECT_EQ(handle_->write_info.bitmap[127], 0x80);
    EXPECT_THAT(marks_of(handle_), ElementsAre(97, 1023));
}

TEST_F(Write, NeedsAHandleAndThenATag)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_write(nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(kp_tag_write(handle_, nullptr, nullptr, 0), -1);
    EXPECT_EQ(kp_tag_write_with_source_params(nullptr, nullptr, nullptr, 0, 0, 0), -1);
    EXPECT_EQ(kp_tag_write_with_source_params(handle_, nullptr, nullptr, 0, 0, 0), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_write: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_write: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_source_params: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_source_params: tag is null\n\033[0m");
}

TEST_F(Write, WithSourceParamsStoresThemBesideTheCurrentTime)
{
    const uint64_t before = kp_get_timestamp_us();

    EXPECT_EQ(kp_tag_write_with_source_params(handle_, number_, &kValue, 100, 77, 1234), 4);

    EXPECT_EQ(segment_.u8(at::quality), 77);
    EXPECT_EQ(segment_.u64(at::source_ts), 1234U);
    EXPECT_GE(segment_.u64(at::last_write_ts), before);
    EXPECT_THAT(marks_of(handle_), ElementsAre(97));
}

TEST_F(Write, WithSourceParamsTakesTheLowByteOfTheQuality)
{
    ASSERT_EQ(kp_tag_write_with_source_params(handle_, number_, &kValue, 4, 0x102, 1), 4);

    EXPECT_EQ(segment_.u8(at::quality), 2);
}

TEST_F(Write, WithQuality255KeepsTheStoredOne)
{
    ASSERT_EQ(kp_tag_write_with_source_params(handle_, number_, &kValue, 4, 77, 1), 4);

    ASSERT_EQ(kp_tag_write_with_source_params(handle_, number_, &kValue, 4, 255, 2), 4);
    ASSERT_EQ(kp_tag_write_with_source_params(handle_, number_, &kValue, 4, 0x1ff, 3), 4);

    EXPECT_EQ(segment_.u8(at::quality), 77);
    EXPECT_EQ(segment_.u64(at::source_ts), 3U);
}

TEST_F(Write, WithTimestampStoresItTwiceWithQualityOne)
{
    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, number_, &kValue, 4, 4711), 4);

    EXPECT_EQ(segment_.u64(at::last_write_ts), 4711U);
    EXPECT_EQ(segment_.u64(at::source_ts), 4711U);
    EXPECT_EQ(segment_.u8(at::quality), 1);
    EXPECT_THAT(marks_of(handle_), ElementsAre(97));
}

TEST_F(Write, WithTimestampZeroFailsSilently)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, number_, &kValue, 4, 0), -1);

    EXPECT_EQ(log.text(), "");
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Write, WithTimestampGivesTheSizeToTheStoreUnchanged)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, number_, &kValue, 100, 1), -1);

    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(100) != max_value_size(4)"});
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Write, WithTimestampLooksUpNoType)
{
    kp_tag_t *text = new_string(handle_, "t", 10);

    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, text, "", 0, 1), 0);

    EXPECT_EQ(SegmentFile("t").u32(at::written_value_size), 0U);
}

TEST_F(Write, WithTimestampNeedsAHandleThenATagThenAValue)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_write_with_timestamp(nullptr, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(kp_tag_write_with_timestamp(handle_, number_, nullptr, 4, 0), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_write_with_timestamp: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_timestamp: tag is null\n\033[0m"
              "\033[91mERROR: kp_tag_write_with_timestamp: value is null\n\033[0m");
}

TEST_F(Write, ByTopicNeedsNoTag)
{
    const uint64_t before = kp_get_timestamp_us();

    EXPECT_EQ(kp_tag_instant_write(handle_, "i", &kValue, KP_TYPE_INT32, 1, 9, 1234, 55), 0);

    const SegmentFile segment("i");
    EXPECT_EQ(segment.u32(at::value_type), 3U);
    EXPECT_EQ(segment.u32(at::written_value_size), 4U);
    EXPECT_EQ(stored_int("i"), kValue);
    EXPECT_EQ(segment.u8(at::quality), 9);
    EXPECT_EQ(segment.u64(at::source_ts), 1234U);
    EXPECT_EQ(segment.u32(at::extra_info), 55U);
    EXPECT_GE(segment.u64(at::last_write_ts), before);
    EXPECT_EQ(segment.u16(at::provider_refs), 0);
}

TEST_F(Write, ByTopicWithoutAValueMakesAnEmptyTopic)
{
    EXPECT_EQ(kp_tag_instant_write(handle_, "i", nullptr, KP_TYPE_INT32, 4, 1, 1, 0), 0);

    EXPECT_EQ(SegmentFile("i").u8(at::flags), kValidFlag);
    EXPECT_EQ(SegmentFile("i").u32(at::max_value_size), 4000U);
}

TEST_F(Write, ByTopicNeedsAHandleThenATopicThenASizeThenAType)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_instant_write(nullptr, nullptr, &kValue, 14, 4001, 1, 1, 0), -1);
    EXPECT_EQ(kp_tag_instant_write(handle_, nullptr, &kValue, 14, 4001, 1, 1, 0), -1);
    EXPECT_EQ(kp_tag_instant_write(handle_, "i", &kValue, 14, 4001, 1, 1, 0), -1);
    EXPECT_EQ(kp_tag_instant_write(handle_, "i", &kValue, 14, 4000, 1, 1, 0), -1);
    EXPECT_EQ(kp_tag_instant_write(handle_, "i", &kValue, KP_TYPE_RAW, 0, 1, 1, 0), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_instant_write: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_instant_write: topic is null\n\033[0m"
              "\033[91mERROR: kp_tag_instant_write: value size is invalid\n\033[0m"
              "\033[91mERROR: kp_get_value_size: value type is invalid\n\033[0m"
              "\033[91mERROR: kp_tag_instant_write: value size is invalid\n\033[0m"
              "\033[91mERROR: kp_tag_instant_write: value size is invalid\n\033[0m");
    EXPECT_FALSE(SegmentFile("i").exists());
}

} // namespace
