// A dictionary as a whole: destroying, dumping and listing it.
#include "core/dicts.h"
#include "testing/capture.h"
#include "testing/faults.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace kptest;

namespace {

std::vector<std::string> texts_of(const kplist *list)
{
    std::vector<std::string> texts;
    for (const kplist_node *node = list->head; node; node = node->next)
        texts.emplace_back(static_cast<const char *>(node->data));
    return texts;
}

using Texts = std::vector<std::string>;

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

} // namespace
