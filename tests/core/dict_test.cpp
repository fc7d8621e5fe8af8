// The chains of a dictionary: entering, finding and removing tags.
#include "core/dicts.h"
#include "testing/capture.h"
#include "testing/faults.h"

#include <gtest/gtest.h>
#include <thread>

using namespace kptest;

namespace {

int entries_in(const Dict &dict)
{
    int entries = 0;
    for (uint32_t hash = 0; hash < KP_BUCKET_COUNT; ++hash)
        entries += static_cast<int>(tags_in(dict, hash).size());
    return entries;
}

constexpr std::size_t kMany = 1000;

void add_many(const Dict &dict, kp_tag_t *tag)
{
    for (std::size_t count = 0; count < kMany; ++count)
        (void)kp_dict_add_tag(dict.get(), tag, 97);
}

// Walks the bucket again and again until it has many entries, and returns the last walk's tags.
Tags tags_seen_while_many_are_added(const Dict &dict)
{
    Tags seen;
    while (seen.size() < kMany)
        seen = tags_in(dict, 97);
    return seen;
}

TEST(NewDictionary, HasNoEntry)
{
    const Dict dict = new_dict();

    EXPECT_EQ(entries_in(dict), 0);
}

TEST(NewDictionary, IsNullWithoutAMessageWhenOutOfMemory)
{
    StderrCapture log;
    FailNext memory{Call::calloc};

    EXPECT_EQ(kp_dict_new(), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(AddingATag, PutsTheNewestAtTheHeadOfItsBucket)
{
    const Dict dict = new_dict();
    Tag first("a");
    Tag second("b");

    EXPECT_EQ(kp_dict_add_tag(dict.get(), first, 5), 0);
    EXPECT_EQ(kp_dict_add_tag(dict.get(), second, 5), 0);

    const kp_dict_entry *head = kp_dict_lookup_entry_head(dict.get(), 5);
    EXPECT_EQ(head->tag, static_cast<kp_tag_t *>(second));
    EXPECT_EQ(head->next->tag, static_cast<kp_tag_t *>(first));
    EXPECT_EQ(head->next->next, nullptr);
}

TEST(AddingATag, TakesTheLastBucket)
{
    const Dict dict = new_dict();
    Tag tag("a");

    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, 1023), 0);
    EXPECT_EQ(tags_in(dict, 1023), Tags{tag});
}

TEST(AddingATag, RefusesAHashBeyondTheLastBucketWithoutAMessage)
{
    const Dict dict = new_dict();
    Tag tag("a");
    StderrCapture log;

    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, 1024), -1);
    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, UINT32_MAX), -1);
    EXPECT_EQ(entries_in(dict), 0);
    EXPECT_EQ(log.text(), "");
}

TEST(AddingATag, RefusesANullDictionaryOrTagWithoutAMessage)
{
    const Dict dict = new_dict();
    Tag tag("a");
    StderrCapture log;

    EXPECT_EQ(kp_dict_add_tag(nullptr, tag, 5), -1);
    EXPECT_EQ(kp_dict_add_tag(dict.get(), nullptr, 5), -1);
    EXPECT_EQ(entries_in(dict), 0);
    EXPECT_EQ(log.text(), "");
}

TEST(AddingATag, EntersTheSameOneTwice)
{
    const Dict dict = new_dict();
    Tag tag("a");

    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, 5), 0);
    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, 5), 0);
    EXPECT_EQ(tags_in(dict, 5), (Tags{tag, tag}));
}

TEST(AddingATag, ReportsThatNoMemoryIsLeftUnderTheEntrysName)
{
    const Dict dict = new_dict();
    Tag tag("a");
    StderrCapture log;
    FailNext memory{Call::calloc};

    EXPECT_EQ(kp_dict_add_tag(dict.get(), tag, 5), -1);
    EXPECT_EQ(entries_in(dict), 0);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_dict_new_entry: malloc: Cannot allocate memory\n\033[0m");
}

TEST(HeadOfABucket, IsNullForAnEmptyOne)
{
    const Dict dict = new_dict();

    EXPECT_EQ(kp_dict_lookup_entry_head(dict.get(), 5), nullptr);
}

TEST(HeadOfABucket, IsNullForANullDictionaryOrAHashBeyondTheLast)
{
    const Dict dict = new_dict();

    EXPECT_EQ(kp_dict_lookup_entry_head(nullptr, 5), nullptr);
    EXPECT_EQ(kp_dict_lookup_entry_head(dict.get(), 1024), nullptr);
}

TEST(EntryOfATag, IsTheNewestOneOfThisVeryTag)
{
    const Dict dict = new_dict();
    Tag tag("a");
    Tag same_topic("a");
    (void)kp_dict_add_tag(dict.get(), tag, 97);
    (void)kp_dict_add_tag(dict.get(), tag, 97);
    (void)kp_dict_add_tag(dict.get(), same_topic, 97);

    const kp_dict_entry *entry = kp_dict_lookup_entry(dict.get(), 97, tag);

    EXPECT_EQ(entry, kp_dict_lookup_entry_head(dict.get(), 97)->next);
}

TEST(EntryOfATag, IsNullInAnotherBucket)
{
    const Dict dict = new_dict();
    Tag tag("a");
    (void)kp_dict_add_tag(dict.get(), tag, 97);

    EXPECT_EQ(kp_dict_lookup_entry(dict.get(), 98, tag), nullptr);
}

TEST(EntryOfATag, IsNullForANullArgumentOrAHashBeyondTheLast)
{
    const Dict dict = new_dict();
    Tag tag("a");

    EXPECT_EQ(kp_dict_lookup_entry(nullptr, 97, tag), nullptr);
    EXPECT_EQ(kp_dict_lookup_entry(dict.get(), 1024, tag), nullptr);
    EXPECT_EQ(kp_dict_lookup_entry(dict.get(), 97, nullptr), nullptr);
}

TEST(RemovingATag, FromTheHeadLeavesTheRest)
{
    const Dict dict = new_dict();
    Tag first("a");
    Tag second("b");
    (void)kp_dict_add_tag(dict.get(), first, 5);
    (void)kp_dict_add_tag(dict.get(), second, 5);

    EXPECT_EQ(kp_dict_remove_tag(dict.get(), second, 5), 0);
    EXPECT_EQ(tags_in(dict, 5), Tags{first});
}

TEST(RemovingATag, FromTheMiddleLinksItsNeighbours)
{
    const Dict dict = new_dict();
    Tag first("a");
    Tag second("b");
    Tag third("c");
    (void)kp_dict_add_tag(dict.get(), first, 5);
    (void)kp_dict_add_tag(dict.get(), second, 5);
    (void)kp_dict_add_tag(dict.get(), third, 5);

    EXPECT_EQ(kp_dict_remove_tag(dict.get(), second, 5), 0);
    EXPECT_EQ(tags_in(dict, 5), (Tags{third, first}));
}

TEST(RemovingATag, FreesItsEntryAndNotTheTag)
{
    const Dict dict = new_dict();
    Tag tag("a");
    const long blocks = live_blocks();
    (void)kp_dict_add_tag(dict.get(), tag, 5);

    EXPECT_EQ(kp_dict_remove_tag(dict.get(), tag, 5), 0);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_STREQ(kp_tag_get_topic(tag), "a");
}

TEST(RemovingATag, ThatWasEnteredTwiceRemovesTheNewestEntryOnly)
{
    const Dict dict = new_dict();
    Tag tag("a");
    Tag between("b");
    (void)kp_dict_add_tag(dict.get(), tag, 5);
    (void)kp_dict_add_tag(dict.get(), between, 5);
    (void)kp_dict_add_tag(dict.get(), tag, 5);

    EXPECT_EQ(kp_dict_remove_tag(dict.get(), tag, 5), 0);
    EXPECT_EQ(tags_in(dict, 5), (Tags{between, tag}));
}

TEST(RemovingATag, FailsUnderAWrongHashAndChangesNothing)
{
    const Dict dict = new_dict();
    Tag tag("a");
    (void)kp_dict_add_tag(dict.get(), tag, 5);
    StderrCapture log;

    EXPECT_EQ(kp_dict_remove_tag(dict.get(), tag, 6), -1);
    EXPECT_EQ(tags_in(dict, 5), Tags{tag});
    EXPECT_EQ(log.text(), "");
}

TEST(RemovingATag, RefusesANullArgumentOrAHashBeyondTheLast)
{
    const Dict dict = new_dict();
    Tag tag("a");

    EXPECT_EQ(kp_dict_remove_tag(nullptr, tag, 5), -1);
    EXPECT_EQ(kp_dict_remove_tag(dict.get(), nullptr, 5), -1);
    EXPECT_EQ(kp_dict_remove_tag(dict.get(), tag, 1024), -1);
    EXPECT_EQ(kp_dict_remove_tag(dict.get(), tag, UINT32_MAX), -1);
}

TEST(ReadingADictionary, BesideAnAdditionMeetsWholeEntriesOnly)
{
    const Dict dict = new_dict();
    Tag tag("a");

    std::thread adder([&dict, &tag] { add_many(dict, tag); });
    const Tags seen = tags_seen_while_many_are_added(dict);
    adder.join();

    EXPECT_EQ(seen, Tags(kMany, tag));
}

} // namespace
