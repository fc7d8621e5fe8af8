// Looking tags and topics up: buckets, tags by topic, the store's topics, and the option of a
// handle.
#include "core/mesh.h"
#include "testing/faults.h"

#include <utility>

using namespace kptest;

namespace {

TEST(Lookup, GivesTheNewestEntryOfABucket)
{
    const Handle handle;
    kp_tag_t *older = kp_tag_consumer_new(handle, "Aa"); // "Aa" and "BB" share bucket 64
    kp_tag_t *newer = kp_tag_consumer_new(handle, "BB");

    kp_dict_entry *head = kp_lookup_head(handle, 64);

    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->tag, newer);
    EXPECT_EQ(head->next->tag, older);
    EXPECT_EQ(head->next->next, nullptr);
}

TEST(Lookup, GivesNullForAnEmptyBucketAndAboveTheLast)
{
    const Handle handle;

    EXPECT_EQ(kp_lookup_head(handle, 0), nullptr);
    EXPECT_EQ(kp_lookup_head(handle, 1023), nullptr);
    EXPECT_EQ(kp_lookup_head(handle, 1024), nullptr);
    EXPECT_EQ(kp_lookup_head(handle, UINT32_MAX), nullptr);
}

TEST(Lookup, NeedsAHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_lookup_head(nullptr, 0), nullptr);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_lookup_head: kp is null"});
}

TEST(TagOfATopic, IsTheOneWithExactlyThatTopic)
{
    const Handle handle;
    kp_tag_t *first = kp_tag_consumer_new(handle, "Aa");
    kp_tag_t *second = kp_tag_consumer_new(handle, "BB");

    EXPECT_EQ(kp_get_tag(handle, "Aa"), first);
    EXPECT_EQ(kp_get_tag(handle, "BB"), second);
    EXPECT_EQ(kp_get_tag(handle, "A"), nullptr);
    EXPECT_EQ(kp_get_tag(handle, "/Aa"), nullptr);
}

TEST(TagOfATopic, IsTheNewestOfSeveral)
{
    const Handle handle;
    (void)kp_tag_provider_new(handle, "a", KP_TYPE_INT8, 0, 0);
    kp_tag_t *newest = kp_tag_consumer_new(handle, "a");

    EXPECT_EQ(kp_get_tag(handle, "a"), newest);
}

TEST(TagOfATopic, PassesOverAnEntryWithoutATag)
{
    const Handle handle;
    kp_tag_t *tag = kp_tag_consumer_new(handle, "Aa");
    ASSERT_EQ(kp_dict_add_tag(handle->dict, kp_tag_consumer_new(handle, "BB"), 64), 0);
    kp_tag_t *hidden = std::exchange(kp_lookup_head(handle, 64)->tag, nullptr);

    EXPECT_EQ(kp_get_tag(handle, "Aa"), tag);

    kp_lookup_head(handle, 64)->tag = hidden;
    EXPECT_EQ(kp_dict_remove_tag(handle->dict, hidden, 64), 0);
}

TEST(TagOfATopic, ReportsANullHandleUnderTheNameOfTheLookup)
{
    StderrCapture log;

    EXPECT_EQ(kp_get_tag(nullptr, "a"), nullptr);
    EXPECT_EQ(kp_get_tag(nullptr, nullptr), nullptr);

    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: kp_lookup_head: kp is null", "ERROR: kp_lookup_head: kp is null"}));
}

TEST(TagOfATopic, IsNullForANullTopic)
{
    const Handle handle;
    ASSERT_NE(kp_tag_consumer_new(handle, "aA"), nullptr); // in bucket 0, like a null topic
    StderrCapture log;

    EXPECT_EQ(kp_get_tag(handle, nullptr), nullptr);

    EXPECT_EQ(log.text(), "");
}

TEST(NewTagNotify, IsOffUntilSwitchedOn)
{
    const Handle handle;

    EXPECT_EQ(kp_is_new_tag_notify_enabled(handle), 0);
    EXPECT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    EXPECT_EQ(kp_is_new_tag_notify_enabled(handle), 1);
    EXPECT_EQ(kp_set_new_tag_notify(handle, 0), 0);
    EXPECT_EQ(kp_is_new_tag_notify_enabled(handle), 0);
}

TEST(NewTagNotify, IsBitZeroOfTheFlagsWhateverNonZeroByteIsGiven)
{
    const Handle handle;

    EXPECT_EQ(kp_set_new_tag_notify(handle, 0x80), 0);

    EXPECT_EQ(handle->flags, 1U);
}

TEST(NewTagNotify, IsSafeWithoutAHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_set_new_tag_notify(nullptr, 1), -1);
    EXPECT_EQ(kp_is_new_tag_notify_enabled(nullptr), 0);

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_set_new_tag_notify: kp is null",
                                  "ERROR: kp_is_new_tag_notify_enabled: kp is null"}));
}

TEST(ListOfTopics, HasANodeForEachTopicOfTheStore)
{
    const Handle handle;
    ASSERT_NE(kp_tag_consumer_new(handle, "a/b/c"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(handle, "d"), nullptr);

    kp_topic_node_t *list = kp_list_all_topics();

    ASSERT_NE(list, nullptr);
    ASSERT_NE(list->next, nullptr);
    EXPECT_EQ(list->next->next, nullptr);
    EXPECT_THAT((Lines{list->topic, list->next->topic}),
                testing::UnorderedElementsAre("a/b/c", "d"));
    kp_free_list_all_topics(list);
}

TEST(ListOfTopics, IsFreedNodeByNode)
{
    const Handle handle;
    ASSERT_NE(kp_tag_consumer_new(handle, "a"), nullptr);
    ASSERT_NE(kp_tag_consumer_new(handle, "b"), nullptr);
    const long before = live_blocks();
    kp_topic_node_t *list = kp_list_all_topics();
    ASSERT_EQ(live_blocks(), before + 4);

    kp_free_list_all_topics(list);

    EXPECT_EQ(live_blocks(), before);
}

TEST(ListOfTopics, MayBeNullWhenFreed)
{
    kp_free_list_all_topics(nullptr);

    EXPECT_EQ(kp_list_all_topics(), nullptr);
}

TEST(DumpOfAHandle, PrintsTheTopicsOfItsTags)
{
    const Handle handle;
    ASSERT_NE(kp_tag_consumer_new(handle, "BB"), nullptr); // bucket 64
    ASSERT_NE(kp_tag_consumer_new(handle, "a"), nullptr);  // bucket 97
    StderrCapture output;

    kp_dump_dict(handle);

    EXPECT_EQ(output.text(), "=== dump dict ===\ntopic=BB\ntopic=a\n==================\n");
}

TEST(DumpOfAHandle, IsSafeWithoutAHandle)
{
    StderrCapture output;

    kp_dump_dict(nullptr);

    EXPECT_EQ(output.lines(), Lines{"ERROR: kp_dump_dict: kp is null"});
}

} // namespace
