#include "common/store/store_files.h"

#include "common/store/store_walk.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace kp::tool;
using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kRoot = "/dev/shm/zu-kp/";

void create(const std::string &topic)
{
    const SegmentFile file(topic);
    file.create();
}

Selection selection_of(const std::vector<std::string> &wanted)
{
    Selection selection;
    Problem problem;
    EXPECT_TRUE(selection.set(wanted, {}, problem));
    return selection;
}

std::vector<std::string> regular_files(const std::vector<std::string> &wanted = {})
{
    std::vector<std::string> topics;
    for (const StoreFile &file : list_store(selection_of(wanted)).files)
        if (file.type == DT_REG)
            topics.push_back(file.topic);
    return topics;
}

struct stat entry_status(const std::string &path)
{
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0);
    return status;
}

std::string topic_of_levels(int levels)
{
    std::string topic = "deep";
    while (--levels > 0)
        topic += "/x";
    return topic;
}

} // namespace

TEST(ListStore, FindsTopicsAtAnyDepthSorted)
{
    create("x");
    create("a/b/c/d/e");
    create("a/b0");

    EXPECT_THAT(regular_files(), ElementsAre("a/b/c/d/e", "a/b0", "x"));
}

TEST(ListStore, GivesTheDirectoriesAboveWhatIsBelowThem)
{
    create("a/b/c");

    EXPECT_THAT(list_store(Selection()).directories, ElementsAre("", "a", "a/b"));
}

TEST(ListStore, LooksOnlyWhereTheSelectionCanCoverSomething)
{
    create("a/b");
    create("c/d");

    EXPECT_THAT(regular_files({"a/#"}), ElementsAre("a/b"));
    EXPECT_THAT(list_store(selection_of({"a/#"})).directories, ElementsAre("", "a"));
}

TEST(ListStore, FollowsNoLink)
{
    create("a/x");
    std::filesystem::create_symlink(kRoot + "a/x", kRoot + "link");
    std::filesystem::create_directory_symlink(kRoot + "a", kRoot + "folder");

    EXPECT_THAT(regular_files(), ElementsAre("a/x"));
}

TEST(ListStore, OfNoStoreIsEmpty)
{
    const StoreListing listing = list_store(Selection());

    EXPECT_THAT(listing.files, IsEmpty());
    EXPECT_THAT(listing.problems, IsEmpty());
}

TEST(ListStore, ReportsAFileInThePlaceOfTheStore)
{
    std::ofstream("/dev/shm/zu-kp") << "text";

    const StoreListing listing = list_store(Selection());

    ASSERT_EQ(listing.problems.size(), 1u);
    EXPECT_EQ(listing.problems[0].text, "/dev/shm/zu-kp: not a directory, so there are no topics");
}

TEST(ListStore, ReachesDeepTopicsWithFewDescriptors)
{
    const std::string topic = topic_of_levels(500);
    create(topic);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit few{128, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);

    EXPECT_THAT(regular_files(), ElementsAre(topic));
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(PlaceOf, SaysWhatStandsThere)
{
    create("a/b");
    std::filesystem::create_directory_symlink(kRoot + "a", kRoot + "link");

    EXPECT_EQ(place_of("a/b"), Place::topic);
    EXPECT_EQ(place_of("a"), Place::directory);
    EXPECT_EQ(place_of("a/b/c"), Place::below_a_topic);
    EXPECT_EQ(place_of("a/b/c/d"), Place::below_a_topic);
    EXPECT_EQ(place_of("a/c/d"), Place::free);
    EXPECT_EQ(place_of("c"), Place::free);
    EXPECT_EQ(place_of("link/b"), Place::unreachable);
}

TEST(PlaceOf, IsFreeWhereThereIsNoStore)
{
    EXPECT_EQ(place_of("a"), Place::free);
    EXPECT_EQ(place_of("a/b"), Place::free);
}

TEST(TopicOpener, OpensNothingBehindALink)
{
    create("a/b");
    std::filesystem::create_directory_symlink(kRoot + "a", kRoot + "folder");
    std::filesystem::create_symlink(kRoot + "a/b", kRoot + "link");
    TopicOpener opener;
    Problem problem;

    EXPECT_FALSE(opener.open("folder/b", problem));
    EXPECT_EQ(problem.text, "folder/b: not a segment (a symbolic link)");
    EXPECT_FALSE(opener.open("link", problem));
    EXPECT_EQ(problem.text, "link: not a segment (a symbolic link)");
    EXPECT_TRUE(opener.open("a/b", problem));
}

TEST(TopicOpener, NamesALevelThatIsATopicItself)
{
    create("a");
    TopicOpener opener;
    Problem problem;

    EXPECT_FALSE(opener.open("a/b", problem));

    EXPECT_EQ(problem.kind, kNothing);
    EXPECT_EQ(problem.text, "a/b: no such topic (one of its levels is a topic itself)");
}

TEST(TopicOpener, SeesANewDirectoryInTheNextRound)
{
    create("a/b");
    TopicOpener opener;
    Problem problem;
    ASSERT_TRUE(opener.open("a/b", problem));
    std::filesystem::remove_all(kRoot + "a");
    create("a/c");

    EXPECT_FALSE(opener.open("a/c", problem));
    opener.start_round();
    EXPECT_TRUE(opener.open("a/c", problem));
}

TEST(TopicOpener, MakesThePlaceOfATopic)
{
    create("x");
    TopicOpener opener;
    Problem problem;

    const auto place = opener.make_place("a/b/c", problem);

    ASSERT_TRUE(place);
    EXPECT_EQ(place->name, "c");
    EXPECT_TRUE(std::filesystem::is_directory(kRoot + "a/b"));
    EXPECT_FALSE(opener.make_place("x/y", problem));
    EXPECT_EQ(problem.text, "x/y: no such topic (one of its levels is a topic itself)");
}

TEST(TopicOpener, MakesNothingBehindALink)
{
    create("a/b");
    std::filesystem::create_directory_symlink(kRoot + "a", kRoot + "link");
    TopicOpener opener;
    Problem problem;

    EXPECT_FALSE(opener.make_place("link/c/d", problem));

    EXPECT_FALSE(exists(kRoot + "a/c"));
}

TEST(TopicOpener, RemovesOnlyTheFileThatTheCallerKnows)
{
    create("a");
    const FileId known = file_id(entry_status(kRoot + "a"));
    create("other");
    std::filesystem::rename(kRoot + "other", kRoot + "a");
    TopicOpener opener;
    Problem problem;

    EXPECT_FALSE(opener.remove_same("a", known, problem));
    EXPECT_EQ(problem.text, "a: another file took its name meanwhile");
    EXPECT_TRUE(exists(kRoot + "a"));

    EXPECT_TRUE(opener.remove_same("a", file_id(entry_status(kRoot + "a")), problem));
    EXPECT_FALSE(exists(kRoot + "a"));
}

TEST(TopicOpener, HoldsOneDescriptorAtMost)
{
    create("a/b");
    create("c/d");
    const auto descriptors = open_descriptors();
    {
        TopicOpener opener;
        Problem problem;
        EXPECT_TRUE(opener.open("a/b", problem));
        EXPECT_TRUE(opener.open("c/d", problem));
        EXPECT_EQ(open_descriptors().size(), descriptors.size() + 1);
    }

    EXPECT_EQ(open_descriptors(), descriptors);
}

namespace {

// Notes where a walk comes by, and does something at one place.
class Follower : public StoreVisitor {
  public:
    Follower(std::string place, std::function<void()> deed)
        : place_(std::move(place)), deed_(std::move(deed))
    {
    }

    std::vector<std::string> enter(const std::string &name, int fd, const struct stat &) override
    {
        visited.push_back(name);
        if (name == place_)
            deed_();
        auto directories = read_directory(fd, name, everything_)->directories;
        std::ranges::sort(directories);
        return directories;
    }
    void miss(const std::string &name, const Problem &) override
    {
        missed.push_back(name);
    }

    std::vector<std::string> visited;
    std::vector<std::string> missed;

  private:
    std::string place_;
    std::function<void()> deed_;
    Selection everything_;
};

} // namespace

TEST(StoreWalk, ComesBackFromAnyDepthAndVisitsWhatLiesBeside)
{
    create(topic_of_levels(300));
    create("deep/x/x/y/topic");
    create("deep/z/topic");
    Follower follower("", [] {});

    walk_store(follower);

    EXPECT_EQ(follower.visited.size(), 300 + 2);
    EXPECT_THAT(follower.missed, IsEmpty());
    EXPECT_EQ(follower.visited.back(), "deep/z");
}

TEST(StoreWalk, IsNotLedAwayByADirectoryThatIsMovedMeanwhile)
{
    const std::string deepest = topic_of_levels(300).substr(0, topic_of_levels(300).size() - 2);
    create(topic_of_levels(300));
    create("deep/x/y/topic");
    create("deep/z/topic");
    std::filesystem::create_directories("/dev/shm/elsewhere/z/not-there");
    Follower follower(deepest,
                      [] { std::filesystem::rename(kRoot + "deep/x/x", "/dev/shm/elsewhere/x"); });

    walk_store(follower);

    EXPECT_EQ(follower.visited.size(), 300 + 2);
    EXPECT_EQ(follower.visited.back(), "deep/z");
    std::filesystem::remove_all("/dev/shm/elsewhere");
}
