// Making provider and consumer tags: what is checked, in which order, and what a failure leaves.
#include "core/mesh.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

kp_tag_t *new_int32(kp_t *handle, const char *topic)
{
    return kp_tag_provider_new(handle, topic, KP_TYPE_INT32, 0, 0);
}

uint32_t max_size_of(kp_tag_t *tag)
{
    uint32_t size = UINT32_MAX;
    EXPECT_EQ(kp_tag_get_max_value_size(tag, &size), 0);
    return size;
}

TEST(NewTag, HoldsACopyOfItsTopicItsHashAndItsRole)
{
    const Handle handle;
    std::string topic = "a";

    const kp_tag_t *tag = kp_tag_consumer_new(handle, topic.c_str());

    topic = "?";
    ASSERT_NE(tag, nullptr);
    EXPECT_STREQ(tag->topic, "a");
    EXPECT_EQ(tag->hash, 97U);
    EXPECT_EQ(tag->role, 2U);
    EXPECT_NE(tag->shm, nullptr);
    EXPECT_EQ(tag->user_data, nullptr);
}

TEST(NewTag, EntersTheDictionaryUnderItsHash)
{
    const Handle handle;

    const kp_tag_t *tag = new_int32(handle, "a");

    ASSERT_NE(kp_lookup_head(handle, 97), nullptr);
    EXPECT_EQ(kp_lookup_head(handle, 97)->tag, tag);
    EXPECT_EQ(tag->role, 1U);
}

TEST(NewTag, IsNotInTheDictionaryBeforeItsConstructorEnds)
{
    const Handle handle;

    kp_tag_t *tag = kp_tag_new(handle, "a", KP_ROLE_CONSUMER);

    EXPECT_NE(tag, nullptr);
    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(kp_tag_destroy(handle, tag), 0);
}

TEST(NewTag, IsTracedWithItsHashOnALineThatEndsWithACarriageReturn)
{
    const Handle handle;
    StderrCapture log;
    kp_xlog_set_user_level(KP_LEVEL_TRACE);

    (void)kp_tag_consumer_new(handle, "a");

    kp_xlog_set_user_level(KP_LEVEL_WARN);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[97mTRACE: kp_tag_new: <97>a\r\n\033[0m");
}

TEST(NewTag, NeedsAHandleBeforeAnythingElse)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_provider_new(nullptr, nullptr, 14, 4001, 0), nullptr);
    EXPECT_EQ(kp_tag_consumer_new(nullptr, nullptr), nullptr);
    EXPECT_EQ(kp_tag_new(nullptr, nullptr, 1), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_provider_new: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_consumer_new: kp is null\n\033[0m"
              "\033[91mERROR: kp_tag_new: kp is null\n\033[0m");
}

TEST(NewTag, NeedsATopicNext)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_provider_new(handle, nullptr, 14, 4001, 0), nullptr);
    EXPECT_EQ(kp_tag_consumer_new(handle, nullptr), nullptr);
    EXPECT_EQ(kp_tag_new(handle, nullptr, 1), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_provider_new: topic is null\n\033[0m"
              "\033[91mERROR: kp_tag_consumer_new: topic is null\n\033[0m"
              "\033[91mERROR: kp_tag_new: topic is null\n\033[0m");
}

TEST(NewTag, ReportsThatItsRecordFindsNoMemory)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext allocation(Call::calloc);

    EXPECT_EQ(kp_tag_consumer_new(handle, "a"), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_new: kp_tag_provider_new: malloc kp_tag_t: Cannot allocate "
              "memory\n\033[0m");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewTag, ReportsThatItsTopicFindsNoMemory)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext allocation(Call::strdup);

    EXPECT_EQ(new_int32(handle, "a"), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_new: kp_tag_provider_new: malloc topic: Cannot allocate "
              "memory\n\033[0m");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewTag, AddsNoMessageToThatOfASegmentThatCannotBeOpened)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailFrom opening(Call::syscall, 1);

    EXPECT_EQ(kp_tag_consumer_new(handle, "a"), nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Too many open files"});
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewTag, IsRefusedForATopicThatLeavesTheStore)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();

    EXPECT_EQ(new_int32(handle, "a/../../b"), nullptr);
    EXPECT_EQ(kp_tag_consumer_new(handle, ".."), nullptr);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_new: topic is invalid",
                                  "ERROR: kp_shm_new: topic is invalid"}));
    EXPECT_EQ(Holdings::now(), before);
    EXPECT_FALSE(exists("/dev/shm/b"));
}

TEST(NewTag, IsRefusedForAnEmptyTopic)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_consumer_new(handle, ""), nullptr);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_new: topic length is 0"});
}

// The third block of memory is the dictionary's entry, after the tag and its segment handle.
TEST(NewProvider, ThatCannotEnterTheDictionaryIsGoneAndBlocksNobody)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();
    FailNth entry(Call::calloc, 3);

    EXPECT_EQ(new_int32(handle, "a"), nullptr);
    EXPECT_TRUE(entry.fired());
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_dict_new_entry: malloc: Cannot allocate memory\n\033[0m");
    EXPECT_EQ(Holdings::now(), before);
    EXPECT_FALSE(SegmentFile("a").exists());
    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_NE(new_int32(handle, "a"), nullptr);
}

TEST(NewConsumer, ThatCannotEnterTheDictionaryIsGoneAndBlocksNobody)
{
    const Handle handle;
    StderrCapture log;
    const Holdings before = Holdings::now();
    FailNth entry(Call::calloc, 3);

    EXPECT_EQ(kp_tag_consumer_new(handle, "a"), nullptr);
    EXPECT_TRUE(entry.fired());
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_dict_new_entry: malloc: Cannot allocate memory\n\033[0m");
    EXPECT_EQ(Holdings::now(), before);
    EXPECT_FALSE(SegmentFile("a").exists());
    EXPECT_NE(kp_tag_consumer_new(handle, "a"), nullptr);
}

TEST(NewProvider, IsRefusedForATypeAboveRaw)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_provider_new(handle, "a", 14, 4, 0), nullptr);
    EXPECT_EQ(kp_tag_provider_new(handle, "a", UINT32_MAX, 4001, 0), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_provider_new: value_type is invalid\n\033[0m"
              "\033[91mERROR: kp_tag_provider_new: value_type is invalid\n\033[0m");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(NewProvider, IsRefusedForASizeAbove4000WhateverTheType)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_provider_new(handle, "a", KP_TYPE_STRING, 4001, 0), nullptr);
    EXPECT_EQ(kp_tag_provider_new(handle, "a", KP_TYPE_INT32, 4001, 0), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_provider_new: value size is invalid\n\033[0m"
              "\033[91mERROR: kp_tag_provider_new: value size is invalid\n\033[0m");
}

TEST(NewProvider, IsRefusedForAVariableTypeOfSizeZero)
{
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_tag_provider_new(handle, "a", KP_TYPE_STRING, 0, 0), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_provider_new: value size is invalid\n\033[0m");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(NewProvider, HasTheSizeOfAFixedTypeWhateverIsAskedFor)
{
    const Handle handle;

    EXPECT_EQ(max_size_of(kp_tag_provider_new(handle, "a", KP_TYPE_INT32, 0, 0)), 4U);
    EXPECT_EQ(max_size_of(kp_tag_provider_new(handle, "b", KP_TYPE_DOUBLE, 4000, 0)), 8U);
}

TEST(NewProvider, HasTheSizeAskedForOfAVariableType)
{
    const Handle handle;

    EXPECT_EQ(max_size_of(kp_tag_provider_new(handle, "a", KP_TYPE_STRING, 4000, 0)), 4000U);
    EXPECT_EQ(max_size_of(kp_tag_provider_new(handle, "b", KP_TYPE_RAW, 1, 0)), 1U);
}

TEST(NewProvider, DeclaresTypeSizeAndExtraInfoInTheSegment)
{
    const Handle handle;

    ASSERT_NE(kp_tag_provider_new(handle, "a", KP_TYPE_BYTEARRAY, 77, 0xfedcba98), nullptr);

    const SegmentFile segment("a");
    EXPECT_EQ(segment.u8(at::flags), kValidFlag);
    EXPECT_EQ(segment.u32(at::value_type), 12U);
    EXPECT_EQ(segment.u32(at::max_value_size), 77U);
    EXPECT_EQ(segment.u32(at::extra_info), 0xfedcba98U);
    EXPECT_EQ(segment.u8(at::provider_refs), 1);
    EXPECT_EQ(segment.u8(at::consumer_refs), 0);
}

TEST(NewProvider, DiscardsTheValueThatTheTopicHad)
{
    const Handle handle;
    kp_tag_t *first = new_int32(handle, "a");
    const int32_t value = 42;
    ASSERT_EQ(kp_tag_write_with_source_params(handle, first, &value, 4, 9, 1234), 4);

    kp_tag_t *second = new_int32(handle, "a");

    const SegmentFile segment("a");
    EXPECT_NE(second, first);
    EXPECT_EQ(segment.u8(at::flags), kValidFlag);
    EXPECT_EQ(segment.u32(at::value), 0U);
    EXPECT_EQ(segment.u8(at::quality), 0);
    EXPECT_EQ(segment.u64(at::source_ts), 0U);
    EXPECT_EQ(segment.u8(at::provider_refs), 2);
}

TEST(NewConsumer, CountsAsOneAndDeclaresNothing)
{
    const Handle handle;

    ASSERT_NE(kp_tag_consumer_new(handle, "a"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(handle, "a"), nullptr);

    const SegmentFile segment("a");
    EXPECT_EQ(segment.u8(at::flags), 0);
    EXPECT_EQ(segment.u8(at::provider_refs), 0);
    EXPECT_EQ(segment.u8(at::consumer_refs), 2);
    EXPECT_THAT(topics_of(handle), ElementsAre("a", "a"));
}

} // namespace
