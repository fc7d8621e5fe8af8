// Listing the topics of the store.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

namespace {

using Topics = std::vector<std::string>;

// Takes and frees the list.
Topics listed_topics()
{
    Topics topics;
    kp_topic_node_t *list = kp_shm_list_all_topics();
    for (const kp_topic_node_t *node = list; node; node = node->next)
        topics.emplace_back(node->topic);
    kp_free_list_all_topics(list);
    return topics;
}

void create(const Topics &topics)
{
    for (const std::string &topic : topics)
        SegmentFile(topic).create();
}

// Gives the names of a directory in the order in which it gives them.
Topics names_in(const std::string &directory)
{
    Topics names;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    return names;
}

TEST(ListOfTopics, IsEmptyWithoutAStore)
{
    const LogLevel everything(KP_LEVEL_ALL);
    StderrCapture log;

    EXPECT_EQ(kp_shm_list_all_topics(), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(ListOfTopics, IsEmptyForAStoreOfEmptyDirectories)
{
    fs::create_directories("/dev/shm/zu-kp/a/b/c/d");

    EXPECT_EQ(kp_shm_list_all_topics(), nullptr);
}

TEST(ListOfTopics, NamesThemRelativeToTheStore)
{
    create({"x", "a/y", "a/b/z"});

    EXPECT_THAT(listed_topics(), UnorderedElementsAre("x", "a/y", "a/b/z"));
}

TEST(ListOfTopics, LeavesOutWhatLiesDeeperThanThreeLevels)
{
    create({"x", "a/y", "a/b/c/z", "a/b/c/d/z"});

    EXPECT_THAT(listed_topics(), UnorderedElementsAre("x", "a/y"));
}

TEST(ListOfTopics, HasTheOrderOfTheDirectory)
{
    create({"m", "a", "z", "k", "b"});

    EXPECT_EQ(listed_topics(), names_in("/dev/shm/zu-kp"));
}

TEST(ListOfTopics, KeepsTheTopicsOfADirectoryTogether)
{
    create({"a/1", "a/2", "b"});
    const bool directory_first = names_in("/dev/shm/zu-kp").front() == "a";
    const Topics inner = names_in("/dev/shm/zu-kp/a");
    const Topics together = {"a/" + inner[0], "a/" + inner[1]};

    const Topics topics = listed_topics();

    ASSERT_EQ(topics.size(), 3U);
    EXPECT_EQ(topics[directory_first ? 2 : 0], "b");
    EXPECT_EQ(topics[directory_first ? 0 : 1], together[0]);
    EXPECT_EQ(topics[directory_first ? 1 : 2], together[1]);
}

TEST(ListOfTopics, GoesOnBehindADirectoryWithoutTopics)
{
    fs::create_directories("/dev/shm/zu-kp/empty");
    create({"a"});
    fs::create_directories("/dev/shm/zu-kp/another");
    create({"b"});

    EXPECT_THAT(listed_topics(), UnorderedElementsAre("a", "b"));
}

TEST(ListOfTopics, NamesAnythingThatIsNoDirectory)
{
    fs::create_directories("/dev/shm/zu-kp");
    fs::create_symlink("/nowhere", "/dev/shm/zu-kp/link");
    SegmentFile("short").create(1);

    EXPECT_THAT(listed_topics(), UnorderedElementsAre("link", "short"));
}

TEST(ListOfTopics, NamesHiddenFiles)
{
    create({".hidden", "..more"});

    EXPECT_THAT(listed_topics(), UnorderedElementsAre(".hidden", "..more"));
}

TEST(ListOfTopics, DoesNotFollowALinkToADirectory)
{
    create({"a/x"});
    fs::create_directory_symlink("/dev/shm/zu-kp/a", "/dev/shm/zu-kp/loop");

    EXPECT_THAT(listed_topics(), UnorderedElementsAre("a/x", "loop"));
}

TEST(ListOfTopics, NamesTheTopicsOfOpenSegments)
{
    const OpenedSegment shm("a/b");

    EXPECT_THAT(listed_topics(), ElementsAre("a/b"));
}

TEST(ListOfTopics, BelongsToTheCaller)
{
    create({"a/x", "b"});
    const long blocks = live_blocks();

    kp_topic_node_t *list = kp_shm_list_all_topics();

    EXPECT_EQ(live_blocks(), blocks + 4);
    kp_free_list_all_topics(list);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(ListOfTopics, LeavesNoDirectoryOpen)
{
    create({"a/b/x"});
    const auto descriptors = open_descriptors();

    EXPECT_THAT(listed_topics(), ElementsAre("a/b/x"));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ListOfTopics, IsEmptyWhenTheStoreCannotBeOpened)
{
    create({"a"});
    StderrCapture log;
    FailNext fault{Call::syscall};

    EXPECT_EQ(kp_shm_list_all_topics(), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(ListOfTopics, LeavesOutADirectoryThatCannotBeOpened)
{
    create({"a/x", "b"});
    const auto descriptors = open_descriptors();
    FailNth fault{Call::syscall, 2};

    EXPECT_THAT(listed_topics(), ElementsAre("b"));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ListOfTopics, LeavesOutADirectoryForWhichThereIsNoStream)
{
    create({"a/x", "b"});
    const auto descriptors = open_descriptors();
    FailNth fault{Call::fdopendir, 2};

    EXPECT_THAT(listed_topics(), ElementsAre("b"));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ListOfTopics, LeavesOutATopicWhoseNodeCannotBeMade)
{
    create({"a", "b"});
    const std::string second = names_in("/dev/shm/zu-kp")[1];
    const long blocks = live_blocks();
    StderrCapture log;
    FailNext fault{Call::calloc};

    EXPECT_THAT(listed_topics(), ElementsAre(second));
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(ListOfTopics, LeavesOutATopicWhoseNameCannotBeCopied)
{
    create({"a", "b"});
    const std::string first = names_in("/dev/shm/zu-kp")[0];
    const long blocks = live_blocks();
    StderrCapture log;
    FailNth fault{Call::strdup, 2};

    EXPECT_THAT(listed_topics(), ElementsAre(first));
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(live_blocks(), blocks);
}

} // namespace
