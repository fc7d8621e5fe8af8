// The scan of the store for topics that a new pattern covers.
#include "core/mesh.h"
#include "core/topic.h"
#include "support/path.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

const fs::path kRoot = "/dev/shm/zu-kp";

class Scan : public testing::Test {
  protected:
    Scan()
    {
        fs::remove_all(kRoot);
    }
    ~Scan() override
    {
        EXPECT_EQ(kp_tags_destroy(handle_), 0);
        fs::remove_all(kRoot);
    }

    const Handle handle_;
};

// Some topics of one to four levels.
class ScanOfSomeTopics : public Scan {
  protected:
    ScanOfSomeTopics()
    {
        SegmentFile("top").create();
        SegmentFile("a/b").create();
        SegmentFile("a/c").create();
        SegmentFile("a/b2/c").create();
        SegmentFile("x/b2/c").create();
        SegmentFile("a/b2/c2/d").create();
    }
};

TEST_F(ScanOfSomeTopics, FindsTopicsAtTheDepthOfThePattern)
{
    EXPECT_EQ(kp_sub_topic(handle_, "a/+"), 0);

    EXPECT_THAT(topics_of(handle_), UnorderedElementsAre("a/b", "a/c"));
}

TEST_F(ScanOfSomeTopics, EntersEveryDirectoryOnTheWay)
{
    EXPECT_EQ(kp_sub_topic(handle_, "+/b2/c"), 0);

    EXPECT_THAT(topics_of(handle_), UnorderedElementsAre("a/b2/c", "x/b2/c"));
}

TEST_F(ScanOfSomeTopics, FindsTopLevelTopicsOnlyWithASinglePlus)
{
    EXPECT_EQ(kp_sub_topic(handle_, "+"), 0);

    EXPECT_THAT(topics_of(handle_), ElementsAre("top"));
}

TEST_F(ScanOfSomeTopics, GoesDeeperForAHashAtTheEnd)
{
    EXPECT_EQ(kp_sub_topic(handle_, "a/#"), 0);

    EXPECT_THAT(topics_of(handle_), UnorderedElementsAre("a/b", "a/c", "a/b2/c", "a/b2/c2/d"));
}

TEST_F(ScanOfSomeTopics, FindsEverythingForAHash)
{
    EXPECT_EQ(kp_sub_topic(handle_, "#"), 0);

    EXPECT_EQ(topics_of(handle_).size(), 6U);
}

TEST_F(ScanOfSomeTopics, CountsSlashesAndNotLevels)
{
    EXPECT_EQ(kp_sub_topic(handle_, "/a/+"), 0); // two slashes, so files two levels down

    EXPECT_THAT(topics_of(handle_), IsEmpty());
}

TEST_F(ScanOfSomeTopics, GoesNoDeeperForAHashThatOnlyBeginsTheLastLevel)
{
    EXPECT_EQ(kp_sub_topic(handle_, "a/#x"), 0);

    EXPECT_THAT(topics_of(handle_), UnorderedElementsAre("a/b", "a/c"));
}

TEST_F(ScanOfSomeTopics, LeavesOutWhatIsNoRegularFile)
{
    ASSERT_EQ(mkfifo((kRoot / "a/pipe").c_str(), 0600), 0);
    fs::create_symlink(kRoot / "a/b", kRoot / "a/link");
    fs::create_directory_symlink(kRoot / "a", kRoot / "s");

    EXPECT_EQ(kp_sub_topic(handle_, "#"), 0);

    EXPECT_EQ(topics_of(handle_).size(), 6U);
}

TEST_F(ScanOfSomeTopics, KeepsExistingTags)
{
    kp_tag_t *tag = kp_tag_consumer_new(handle_, "a/b");

    EXPECT_EQ(kp_sub_topic(handle_, "a/+"), 0);

    EXPECT_EQ(kp_get_tag(handle_, "a/b"), tag);
    EXPECT_THAT(topics_of(handle_), UnorderedElementsAre("a/b", "a/c"));
}

TEST_F(ScanOfSomeTopics, TellsAtDebugWhatMatchesAndWhatItMakes)
{
    StderrCapture log;
    kp_xlog_set_user_level(KP_LEVEL_DEBUG);

    EXPECT_EQ(kp_sub_topic(handle_, "+"), 0);

    kp_xlog_set_user_level(KP_LEVEL_WARN);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: sub_matched_topic_rec: matched [top]\n\033[0m"
              "\033[92mDEBUG: sub_plain_topic: create tag [top]\n\033[0m");
}

TEST_F(ScanOfSomeTopics, GoesOnAfterATagThatCannotBeMade)
{
    StderrCapture log;
    const FailNext opening(Call::fallocate);

    EXPECT_EQ(kp_sub_topic(handle_, "a/+"), 0);

    EXPECT_EQ(topics_of(handle_).size(), 1U);
}

TEST_F(ScanOfSomeTopics, PassesOverADirectoryThatCannotBeOpened)
{
    const FailNth opening(Call::syscall, 2);

    EXPECT_EQ(kp_sub_topic(handle_, "#"), 0);

    EXPECT_FALSE(topics_of(handle_).empty());
    EXPECT_LT(topics_of(handle_).size(), 6U);
}

TEST_F(Scan, OfAMissingStoreFailsSilentlyAndThePatternStays)
{
    StderrCapture log;

    EXPECT_EQ(kp_sub_topic(handle_, "a/+"), -1);

    EXPECT_EQ(log.text(), "");
    EXPECT_THAT(patterns_of(handle_), ElementsAre("a/+"));
    EXPECT_EQ(kp_sub_plain_topic(handle_, "a/b"), 0);
    EXPECT_THAT(topics_of(handle_), ElementsAre("a/b"));
}

TEST_F(Scan, OfARootThatCannotBeOpenedFailsAndThePatternStays)
{
    SegmentFile("a/b").create();
    const FailNext opening(Call::syscall);

    EXPECT_EQ(kp_sub_topic(handle_, "a/+"), -1);

    EXPECT_THAT(patterns_of(handle_), ElementsAre("a/+"));
    EXPECT_THAT(topics_of(handle_), IsEmpty());
}

TEST_F(Scan, RefusesAnEmptyPatternAndAPathOutsideTheStore)
{
    char empty[kp::kPathSize] = "";
    char outside[kp::kPathSize] = "/dev/shm";
    char behind[kp::kPathSize] = "x/dev/shm/zu-kp";
    char root[kp::kPathSize] = "/dev/shm/zu-kp";

    fs::create_directories(kRoot);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, root, 0, nullptr), -1);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, root, 0, ""), -1);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, empty, 0, "#"), -1);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, outside, 0, "#"), -1);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, behind, 0, "#"), -1);
}

TEST_F(Scan, BelowThePatternsDepthIsDoneBeforeADirectoryIsOpened)
{
    char missing[kp::kPathSize] = "/dev/shm/zu-kp/missing";

    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, missing, -1, "a/+"), 0);
    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, missing, -1, "a/#"), -1);
}

TEST_F(Scan, GivesThePathBackUnchanged)
{
    SegmentFile("a/b/c").create();
    char path[kp::kPathSize] = "/dev/shm/zu-kp";

    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, path, 0, "#"), 0);

    EXPECT_STREQ(path, "/dev/shm/zu-kp");
    EXPECT_THAT(topics_of(handle_), ElementsAre("a/b/c"));
}

// Makes a file at the end of directories with names of `length` bytes, from within, since the path
// is longer than the system takes.
void make_deep_tree(int levels, std::size_t length)
{
    const fs::path before = fs::current_path();
    const std::string name(length, 'd');
    fs::create_directories(kRoot);
    fs::current_path(kRoot);
    for (int level = 0; level < levels; ++level) {
        std::ofstream("f").put('x');
        fs::create_directory(name);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    fs::current_path(before);
}

TEST_F(Scan, StopsWhereThePathBufferEnds)
{
    make_deep_tree(20, 255); // levels of 256 bytes with their slash, below 14 bytes: 15 fit

    EXPECT_EQ(kp_sub_topic(handle_, "#"), 0);

    EXPECT_EQ(topics_of(handle_).size(), 16U);
    EXPECT_NE(kp_get_tag(handle_, "f"), nullptr);
}

TEST_F(Scan, WritesNothingBehindThePathBuffer)
{
    make_deep_tree(20, 255);
    struct {
        char path[kp::kPathSize] = "/dev/shm/zu-kp";
        char behind[512] = "untouched";
    } memory;

    EXPECT_EQ(kp::sub_matched_topic_rec(handle_, memory.path, 0, "#"), 0);

    EXPECT_EQ(std::string_view(memory.behind, sizeof(memory.behind)),
              "untouched" + std::string(sizeof(memory.behind) - 9, '\0'));
}

TEST_F(Scan, MatchesAPathThatJustFitsTheBuffer)
{
    const std::string directory(255, 'd');
    std::string topic;
    for (int level = 0; level < 15; ++level)
        topic += directory + '/';
    topic += std::string(4095 - 15 - topic.size(), 'f');
    fs::create_directories((kRoot / topic).parent_path());
    std::ofstream(kRoot / topic).put('x');

    EXPECT_EQ(kp_sub_topic(handle_, "#"), 0);

    EXPECT_THAT(topics_of(handle_), ElementsAre(topic));
}

} // namespace
