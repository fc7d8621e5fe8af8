// The topic hash, which every process must compute alike, and the dictionary's chains.
#include "core/tag.h"
#include "support/dict.h"
#include "testing/capture.h"
#include "testing/faults.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace kptest;

namespace {

struct DestroyDict {
    void operator()(kp_dict *dict) const
    {
        (void)kp_dict_destroy(dict);
    }
};

using Dict = std::unique_ptr<kp_dict, DestroyDict>;

Dict new_dict()
{
    return Dict(kp_dict_new());
}

// A tag as far as the dictionary looks at one.
class Tag {
  public:
    explicit Tag(std::string topic) : topic_(std::move(topic))
    {
        tag_.topic = topic_.data();
    }
    Tag(const Tag &) = delete;
    Tag &operator=(const Tag &) = delete;

    operator kp_tag_t *()
    {
        return &tag_;
    }

  private:
    std::string topic_;
    kp_tag_t tag_{};
};

// The tags of a bucket from its head.
std::vector<kp_tag_t *> tags_in(const Dict &dict, uint32_t hash)
{
    std::vector<kp_tag_t *> tags;
    for (const kp_dict_entry *entry = kp_dict_lookup_entry_head(dict.get(), hash); entry;
         entry = kp::next_entry(*entry))
        tags.push_back(entry->tag);
    return tags;
}

using Tags = std::vector<kp_tag_t *>;

int entries_in(const Dict &dict)
{
    int entries = 0;
    for (uint32_t hash = 0; hash < KP_BUCKET_COUNT; ++hash)
        entries += static_cast<int>(tags_in(dict, hash).size());
    return entries;
}

uint32_t largest_hash_of_many_topics()
{
    uint32_t largest = 0;
    for (int number = 0; number < 100'000; ++number)
        largest = std::max(largest, kp_hash(("topic/" + std::to_string(number)).c_str()));
    return largest;
}

std::vector<std::string> texts_of(const kplist *list)
{
    std::vector<std::string> texts;
    for (const kplist_node *node = list->head; node; node = node->next)
        texts.emplace_back(static_cast<const char *>(node->data));
    return texts;
}

using Texts = std::vector<std::string>;

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

TEST(TopicHash, IsThePolynomialOverTheBytes)
{
    EXPECT_EQ(kp_hash(""), 0U);
    EXPECT_EQ(kp_hash("a"), 97U);
    EXPECT_EQ(kp_hash("ab"), 33U);
    EXPECT_EQ(kp_hash("a/b/c"), 840U);
    EXPECT_EQ(kp_hash("plant/pump/1"), 622U);
}

TEST(TopicHash, WrapsAt32BitsInLongTopics)
{
    EXPECT_EQ(kp_hash(std::string(385, 'x').c_str()), 120U);
    EXPECT_EQ(kp_hash(std::string(3999, 'y').c_str()), 409U);
}

TEST(TopicHash, TakesBytesAsUnsigned)
{
    EXPECT_EQ(kp_hash("\xff"), 255U);
    EXPECT_EQ(kp_hash("\xff\xff"), 992U);
}

TEST(TopicHash, DistinguishesCase)
{
    EXPECT_EQ(kp_hash("A"), 65U);
}

TEST(TopicHash, ReachesTheLastBucketAndNeverExceedsIt)
{
    EXPECT_EQ(largest_hash_of_many_topics(), 1023U);
}

TEST(TopicHash, OfNullIsZero)
{
    EXPECT_EQ(kp_hash(nullptr), 0U);
}

TEST(NoticeBit, OfABucketIsCountedFromTheLeastSignificant)
{
    EXPECT_EQ(kp::bitmap_byte(0), 0U);
    EXPECT_EQ(kp::bitmap_bit(0), 0x01);
    EXPECT_EQ(kp::bitmap_byte(97), 12U);
    EXPECT_EQ(kp::bitmap_bit(97), 0x02);
    EXPECT_EQ(kp::bitmap_byte(1023), 127U);
    EXPECT_EQ(kp::bitmap_bit(1023), 0x80);
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
}

TEST(DestroyingADictionary, FreesTheEntriesAndLeavesTheTags)
{
    const long blocks = live_blocks();
    Dict dict = new_dict();
    Tag first("a");
    Tag second("b");
    (void)kp_dict_add_tag(dict.get(), first, 0);
    (void)kp_dict_add_tag(dict.get(), second, 0);
    (void)kp_dict_add_tag(dict.get(), second, 1023);

    EXPECT_EQ(kp_dict_destroy(dict.release()), 0);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_STREQ(kp_tag_get_topic(first), "a");
    EXPECT_STREQ(kp_tag_get_topic(second), "b");
}

TEST(DestroyingADictionary, FailsForNull)
{
    EXPECT_EQ(kp_dict_destroy(nullptr), -1);
}

TEST(DumpingADictionary, PrintsTheTopicsInTheOrderOfTheBuckets)
{
    const Dict dict = new_dict();
    Tag late("z/1");
    Tag early("a/1");
    Tag newest("a/2");
    (void)kp_dict_add_tag(dict.get(), late, 1023);
    (void)kp_dict_add_tag(dict.get(), early, 0);
    (void)kp_dict_add_tag(dict.get(), newest, 0);
    StderrCapture output;

    kp_dict_dump_dict(dict.get());

    EXPECT_EQ(output.text(), "=== dump dict ===\n"
                             "topic=a/2\n"
                             "topic=a/1\n"
                             "topic=z/1\n"
                             "==================\n");
}

TEST(DumpingADictionary, PrintsTheTwoFramingLinesAloneWhenItIsEmpty)
{
    const Dict dict = new_dict();
    StderrCapture output;

    kp_dict_dump_dict(dict.get());

    EXPECT_EQ(output.text(), "=== dump dict ===\n==================\n");
}

TEST(DumpingADictionary, PrintsNothingForNull)
{
    StderrCapture output;

    kp_dict_dump_dict(nullptr);

    EXPECT_EQ(output.text(), "");
}

TEST(ListingADictionary, AddsCopiesInReverseOrder)
{
    const Dict dict = new_dict();
    Tag late("z/1");
    Tag early("a/1");
    Tag newest("a/2");
    (void)kp_dict_add_tag(dict.get(), late, 1023);
    (void)kp_dict_add_tag(dict.get(), early, 0);
    (void)kp_dict_add_tag(dict.get(), newest, 0);
    kplist *list = kplist_new();

    kp_dict_list_dict(dict.get(), list);

    EXPECT_EQ(texts_of(list), (Texts{"z/1", "a/1", "a/2"}));
    EXPECT_NE(list->head->data, kp_tag_get_topic(late));
    kplist_free(list, std::free);
}

TEST(ListingADictionary, LeavesNoCopyBehindWhenItCannotEnterTheList)
{
    const Dict dict = new_dict();
    Tag tag("a");
    (void)kp_dict_add_tag(dict.get(), tag, 5);
    kplist *list = kplist_new();
    const long blocks = live_blocks();
    FailNext memory{Call::calloc};

    kp_dict_list_dict(dict.get(), list);

    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(live_blocks(), blocks);
    kplist_free(list, std::free);
}

TEST(ListingADictionary, LeavesOutATopicThatCannotBeCopied)
{
    const Dict dict = new_dict();
    Tag first("a");
    Tag second("b");
    (void)kp_dict_add_tag(dict.get(), first, 5);
    (void)kp_dict_add_tag(dict.get(), second, 6);
    kplist *list = kplist_new();
    FailNext memory{Call::strdup};

    kp_dict_list_dict(dict.get(), list);

    EXPECT_EQ(texts_of(list), Texts{"b"});
    kplist_free(list, std::free);
}

TEST(ListingADictionary, DoesNothingForANullDictionaryOrList)
{
    const Dict dict = new_dict();
    Tag tag("a");
    (void)kp_dict_add_tag(dict.get(), tag, 5);
    kplist *list = kplist_new();

    kp_dict_list_dict(nullptr, list);
    kp_dict_list_dict(dict.get(), nullptr);

    EXPECT_EQ(list->count, 0U);
    kplist_free(list, std::free);
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
