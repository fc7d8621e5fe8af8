// Publishing values by topic.
#include "core/mesh.h"

#include <memory>

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A value in a block of its exact size, so that AddressSanitizer sees any byte read behind it.
class Exactly {
  public:
    explicit Exactly(const std::string &bytes) : block_(new char[bytes.size()])
    {
        bytes.copy(block_.get(), bytes.size());
    }
    const void *get() const
    {
        return block_.get();
    }

  private:
    std::unique_ptr<char[]> block_;
};

class Publication : public testing::Test {
  protected:
    int32_t publish(const char *topic, const std::string &value, uint32_t value_type)
    {
        return kp_pub_topic(handle_, topic, Exactly(value).get(),
                            static_cast<uint32_t>(value.size()), value_type, 1234);
    }

    const Handle handle_;
};

TEST_F(Publication, MakesAProviderTagOfTheLargestSizeForAVariableType)
{
    EXPECT_EQ(publish("a", "0123456789", KP_TYPE_STRING), 0);

    const SegmentFile segment("a");
    EXPECT_EQ(segment.u32(at::value_type), 11U);
    EXPECT_EQ(segment.u32(at::max_value_size), 4000U);
    EXPECT_EQ(segment.u32(at::extra_info), 2U);
    EXPECT_EQ(segment.u32(at::written_value_size), 10U);
    EXPECT_EQ(segment.bytes(at::value, 10), "0123456789");
    EXPECT_EQ(segment.u8(at::provider_refs), 1);
}

TEST_F(Publication, UsesTheTagAgain)
{
    ASSERT_EQ(publish("a", "0123456789", KP_TYPE_STRING), 0);
    const kp_tag_t *tag = kp_get_tag(handle_, "a");

    EXPECT_EQ(publish("a", "01234567890123456789", KP_TYPE_STRING), 0);

    EXPECT_THAT(topics_of(handle_), ElementsAre("a"));
    EXPECT_EQ(kp_get_tag(handle_, "a"), tag);
    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 20U);
}

TEST_F(Publication, MakesAProviderTagOfTheTypesSizeForAFixedType)
{
    EXPECT_EQ(publish("a", "\1\2\3\4", KP_TYPE_INT32), 0);

    const SegmentFile segment("a");
    EXPECT_EQ(segment.u32(at::max_value_size), 4U);
    EXPECT_EQ(segment.u32(at::extra_info), 2U);
    EXPECT_EQ(segment.bytes(at::value, 4), "\1\2\3\4");
}

TEST_F(Publication, StampsQualityOneTheCurrentTimeAndTheGivenSourceTime)
{
    const uint64_t before = kp_get_timestamp_us();

    ASSERT_EQ(publish("a", "\1", KP_TYPE_INT8), 0);

    const SegmentFile segment("a");
    EXPECT_EQ(segment.u8(at::quality), 1);
    EXPECT_EQ(segment.u64(at::source_ts), 1234U);
    EXPECT_GE(segment.u64(at::last_write_ts), before);
}

TEST_F(Publication, CutsAValueOfVariableTypeTo4000Bytes)
{
    EXPECT_EQ(publish("a", repeated('x', 4500), KP_TYPE_RAW), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::written_value_size), 4000U);
}

TEST_F(Publication, WithoutAValueRefreshesTheTimes)
{
    EXPECT_EQ(kp_pub_topic(handle_, "a", nullptr, 4, KP_TYPE_INT32, 1234), 0);

    EXPECT_EQ(SegmentFile("a").u64(at::source_ts), 1234U);
    EXPECT_EQ(SegmentFile("a").u8(at::flags), kValidFlag);
}

TEST_F(Publication, NeedsAHandleAndSaysSoPlainly)
{
    StderrCapture log;
    kp_xlog_set_user_level(KP_LEVEL_OFF);

    EXPECT_EQ(kp_pub_topic(nullptr, nullptr, nullptr, 0, 14, 0), -1);
    EXPECT_EQ(kp_pub_topic_instant(nullptr, nullptr, nullptr, 0, 14, 0), -1);

    kp_xlog_set_user_level(KP_LEVEL_WARN);
    EXPECT_EQ(log.text(), "null kp\nnull kp\n");
}

TEST_F(Publication, OfAnUnknownTypeIsReportedTwice)
{
    StderrCapture log;

    EXPECT_EQ(publish("a", "x", 14), -1);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_get_value_size: value type is invalid\n\033[0mzero value size\n");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST_F(Publication, OfNoBytesIsRefusedForAVariableType)
{
    StderrCapture log;

    EXPECT_EQ(publish("a", "", KP_TYPE_STRING), -1);

    EXPECT_EQ(log.text(), "zero value size\n");
}

TEST_F(Publication, WithoutATopicFailsAtBothSteps)
{
    StderrCapture log;

    EXPECT_EQ(publish(nullptr, "\1", KP_TYPE_INT8), -1);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_tag_provider_new: topic is null",
                                  "ERROR: kp_tag_write_with_source_params: tag is null"}));
}

TEST_F(Publication, FailsWithTheWritesMessageWhenItsTagCannotBeMade)
{
    StderrCapture log;

    EXPECT_EQ(publish("../a", "\1", KP_TYPE_INT8), -1);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_new: topic is invalid",
                                  "ERROR: kp_tag_write_with_source_params: tag is null"}));
}

TEST_F(Publication, FailsWhenTheTagTakesNoSuchSize)
{
    ASSERT_NE(kp_tag_provider_new(handle_, "a", KP_TYPE_STRING, 5, 0), nullptr);
    StderrCapture log;

    EXPECT_EQ(publish("a", "0123456789", KP_TYPE_STRING), -1);

    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(10) > max_value_size(5)"});
}

TEST_F(Publication, GoesThroughAConsumerTagOfTheTopic)
{
    const Writer declares("a");
    kp_tag_t *consumer = kp_tag_consumer_new(handle_, "a");

    EXPECT_EQ(publish("a", "\1\2\3\4", KP_TYPE_INT32), 0);

    EXPECT_EQ(stored_int("a"), 0x04030201);
    EXPECT_EQ(kp_get_tag(handle_, "a"), consumer);
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
}

TEST_F(Publication, KeepsTheTypeOfTheTagWhateverIsGiven)
{
    ASSERT_NE(kp_tag_provider_new(handle_, "a", KP_TYPE_INT16, 0, 0), nullptr);

    EXPECT_EQ(publish("a", "\1\2\3\4", KP_TYPE_INT32), 0);

    EXPECT_EQ(SegmentFile("a").u32(at::value_type), 2U);
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 4), std::string("\1\2\0\0", 4));
}

TEST_F(Publication, ThroughATagOfALargerFixedTypeFillsTheRestWithZero)
{
    ASSERT_NE(kp_tag_provider_new(handle_, "a", KP_TYPE_UINT64, 0, 0), nullptr);
    ASSERT_EQ(publish("a", "\xff\xff\xff\xff\xff\xff\xff\xff", KP_TYPE_UINT64), 0);

    EXPECT_EQ(publish("a", "\1\2", KP_TYPE_INT16), 0);
    EXPECT_EQ(SegmentFile("a").u64(at::value), 0x0201U);
    EXPECT_EQ(publish("a", "abc", KP_TYPE_STRING), 0);
    EXPECT_EQ(SegmentFile("a").u64(at::value), 0x636261U);
}

TEST_F(Publication, MarksTheTopicButSendsNothing)
{
    const UnixSocket reader = listen_to(handle_);

    ASSERT_EQ(publish("a", "\1", KP_TYPE_INT8), 0);

    EXPECT_THAT(marks_of(handle_), ElementsAre(97));
    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(Publication, AnnouncesTheTagThatItMakes)
{
    const UnixSocket reader = listen_to(handle_);
    ASSERT_EQ(kp_set_new_tag_notify(handle_, 1), 0);

    ASSERT_EQ(publish("a", "\1", KP_TYPE_INT8), 0);
    ASSERT_EQ(publish("a", "\2", KP_TYPE_INT8), 0);

    EXPECT_EQ(reader.recv(387), new_tag_notice("a"));
    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(Publication, ThatIsInstantSendsOneNoticeWithAllMarks)
{
    const UnixSocket reader = listen_to(handle_);
    ASSERT_EQ(publish("aA", "\1", KP_TYPE_INT8), 0);

    EXPECT_EQ(kp_pub_topic_instant(handle_, "a", "\1", 1, KP_TYPE_INT8, 1), 0);

    EXPECT_EQ(reader.recv(129), write_notice({0, 97}));
    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Publication, ThatIsInstantSendsNothingWhenItFails)
{
    const UnixSocket reader = listen_to(handle_);
    StderrCapture log;

    EXPECT_EQ(kp_pub_topic_instant(handle_, "a", "", 0, KP_TYPE_STRING, 1), -1);

    EXPECT_FALSE(reader.is_readable(std::chrono::milliseconds(0)));
}

} // namespace
