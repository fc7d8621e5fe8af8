// Links among the directories of a topic's path: those of root and of the effective user are
// followed, and nobody else's leads an operation out of the store.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace kptest;

namespace fs = std::filesystem;

namespace {

const fs::path kStore = "/dev/shm/zu-kp";
const fs::path kOutside = "/run/victim"; // where no topic may lead
constexpr uid_t kSomebody = 4242;

// A store beside a directory with a file that nothing may touch.
class Links : public testing::Test {
  protected:
    Links()
    {
        fs::create_directories(kStore);
        fs::create_directories(kOutside);
        std::ofstream(kOutside / "passwd") << "root::0:0";
    }

    // False where this user may not give a file away.
    static bool make_foreign_link(const fs::path &target, const fs::path &link)
    {
        fs::create_directory_symlink(target, link);
        return lchown(link.c_str(), kSomebody, kSomebody) == 0;
    }

    static void expect_nothing_happened_outside()
    {
        std::string text;
        std::ifstream(kOutside / "passwd") >> text;
        EXPECT_EQ(text, "root::0:0");
        EXPECT_EQ(std::distance(fs::directory_iterator(kOutside), fs::directory_iterator()), 1);
    }
};

#define KP_NEEDS_FOREIGN_LINK(target, link)                                                        \
    if (!make_foreign_link(target, link))                                                          \
    GTEST_SKIP() << "this user may not give a link away"

// The same with a system that has no openat2(), or forbids it.
class LinksOneByOne : public Links, public testing::WithParamInterface<int> {
  protected:
    const FailFrom old_system_{Call::syscall, 1, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(WithoutTheOneCall, LinksOneByOne, testing::Values(ENOSYS, EPERM));

void expect_refused_as_invalid(const std::string &topic)
{
    StderrCapture log;
    StdoutCapture output;
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;

    EXPECT_EQ(kp_shm_new(topic.c_str(), KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_instant_write(topic.c_str(), "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), -1);
    EXPECT_EQ(kp_shm_instant_read(topic.c_str(), &value, &type, &size, nullptr, nullptr, nullptr,
                                  nullptr),
              -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size(topic.c_str(), nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_new_shm: topic is invalid",
                                  "ERROR: kp_shm_instant_write: topic is invalid",
                                  "ERROR: kp_shm_instant_read: topic is invalid",
                                  "ERROR: kp_shm_instant_get_max_value_size: topic is invalid"}));
    EXPECT_EQ(output.text(), "");
}

TEST_F(Links, OfSomebodyElseAreRefused)
{
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore / "esc");

    expect_refused_as_invalid("esc/passwd");
    expect_refused_as_invalid("esc/new");
    expect_refused_as_invalid("esc/a/b/c");
    expect_nothing_happened_outside();
}

TEST_P(LinksOneByOne, OfSomebodyElseAreRefused)
{
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore / "esc");

    expect_refused_as_invalid("esc/passwd");
    expect_refused_as_invalid("esc/a/b/c");
    expect_nothing_happened_outside();
}

TEST_F(Links, OfSomebodyElseAreRefusedBehindOneThatIsFollowed)
{
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore / "esc");
    fs::create_directory_symlink("esc", kStore / "own");

    expect_refused_as_invalid("own/passwd");
    expect_nothing_happened_outside();
}

TEST_F(Links, OfSomebodyElseInPlaceOfTheStoreAreRefused)
{
    fs::remove(kStore);
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore);

    expect_refused_as_invalid("passwd");
    EXPECT_EQ(kp_shm_list_all_topics(), nullptr);
    expect_nothing_happened_outside();
}

TEST_F(Links, OfSomebodyElseMakeNoDirectories)
{
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore / "esc");

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/esc/a/b"), 0);

    expect_nothing_happened_outside();
}

TEST_F(Links, OfSomebodyElseForTheStoreLeadNowhereWithoutDescriptorsEither)
{
    fs::remove(kStore);
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore);
    FailFrom fault{{Call::syscall, Call::openat}, 1, EMFILE};

    EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a/b"), 0);

    expect_nothing_happened_outside();
}

TEST_F(Links, OfSomebodyElseThatComeAfterTheOpeningMisleadNoClosing)
{
    OpenedSegment shm("a/passwd");
    fs::rename(kStore / "a", kStore / "old");
    KP_NEEDS_FOREIGN_LINK(kOutside, kStore / "a");

    shm.close();

    expect_nothing_happened_outside();
}

TEST_F(Links, OfOneselfThatComeAfterTheOpeningLeadTheClosingToNoOtherFile)
{
    OpenedSegment shm("a/passwd");
    fs::rename(kStore / "a", kStore / "old");
    fs::create_directory_symlink(kOutside, kStore / "a");

    shm.close();

    expect_nothing_happened_outside();
}

TEST_F(Links, OfRootAreFollowed)
{
    fs::create_directories("/run/elsewhere");
    fs::create_directory_symlink("/run/elsewhere", kStore / "far");

    DeclaredSegment shm("far/a/b");
    EXPECT_EQ(kp_shm_instant_write("far/a/b", "\1\2\3\4", KP_TYPE_UINT32, 4, 1, 1, 1, 1), 0);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("far/a/b", nullptr), 0);
    EXPECT_TRUE(fs::exists("/run/elsewhere/a/b"));
    shm.close();

    EXPECT_FALSE(fs::exists("/run/elsewhere/a/b"));
    EXPECT_TRUE(fs::exists("/run/elsewhere/a"));
}

TEST_P(LinksOneByOne, OfRootAreFollowed)
{
    fs::create_directories("/run/elsewhere");
    fs::create_directory_symlink("../../../run/elsewhere/.", kStore / "far");

    OpenedSegment shm("far/a/b");
    EXPECT_TRUE(fs::exists("/run/elsewhere/a/b"));
    shm.close();

    EXPECT_FALSE(fs::exists("/run/elsewhere/a/b"));
}

TEST_F(Links, OfRootInPlaceOfTheStoreAreFollowed)
{
    fs::remove(kStore);
    fs::create_directories("/run/elsewhere");
    fs::create_directory_symlink("/run/elsewhere", kStore);
    const OpenedSegment shm("a");

    kp_topic_node_t *topics = kp_shm_list_all_topics();

    ASSERT_NE(topics, nullptr);
    EXPECT_STREQ(topics->topic, "a");
    kp_free_list_all_topics(topics);
}

TEST_F(Links, AreFollowedFortyTimes)
{
    fs::create_directory(kStore / "0");
    for (int link = 1; link <= 41; ++link)
        fs::create_directory_symlink(std::to_string(link - 1), kStore / std::to_string(link));
    StderrCapture log;

    const OpenedSegment shm("40/a");

    EXPECT_EQ(kp_shm_new("41/a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
                                 "Too many levels of symbolic links"});
}

TEST_F(Links, InACircleAreReported)
{
    fs::create_directory_symlink("b", kStore / "a");
    fs::create_directory_symlink("a", kStore / "b");
    StderrCapture log;
    const auto descriptors = open_descriptors();

    EXPECT_EQ(kp_shm_new("a/x", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
                                 "Too many levels of symbolic links"});
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Links, LongerThanAPathAreReported)
{
    const std::string level(250, 'x');
    std::string target;
    while (target.size() < 3800)
        target += level + '/';
    fs::create_directory_symlink(target, kStore / "a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_new(("a/" + level + '/' + level + "/b").c_str(), KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): File name too long"});
}

TEST_F(Links, InTheLastPlaceAreFollowedByTheLookForTheFileOnly)
{
    SegmentFile("target").create();
    fs::create_symlink("target", kStore / "a");
    fs::create_symlink("nothing", kStore / "b");
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_get_max_value_size: "
                                 "fd '/dev/shm/zu-kp/a' create fail"});
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(kp_shm_instant_get_max_value_size("b", nullptr), -1);
    EXPECT_EQ(output.text(), "access failed\n");
}

TEST_P(LinksOneByOne, AreNoneOnAnOrdinaryPath)
{
    DeclaredSegment shm("a//b/./c");
    kp_topic_node_t *topics = kp_shm_list_all_topics();

    ASSERT_NE(topics, nullptr);
    EXPECT_STREQ(topics->topic, "a/b/c");
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a/b/c", nullptr), 0);
    kp_free_list_all_topics(topics);
    shm.close();
    EXPECT_FALSE(SegmentFile("a/b/c").exists());
}

TEST(ATopicThatEndsInASlash, IsReportedAsADirectory)
{
    SegmentFile("file").create();
    fs::create_directories(kStore / "directory");
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("new/", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_new("file/", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_new("directory/", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(),
              Lines(3, "ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Is a directory"));
}

TEST(MakingDirectories, EndsAtALevelThatIsTooLong)
{
    fs::create_directories(kStore);

    EXPECT_EQ(kp_mkdir((kStore / std::string(5000, 'x') / "b/c").c_str()), 0);

    EXPECT_TRUE(fs::is_empty(kStore));
}

TEST_F(Links, ThatCannotBeReadLeadNowhere)
{
    fs::create_directories("/run/target");
    fs::create_directory_symlink("/run/target", kStore / "link");
    StderrCapture log;
    const FailFrom fault(Call::readlinkat, 1, EIO);

    EXPECT_EQ(kp_shm_new("link/a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Input/output error"});
    EXPECT_TRUE(fs::is_empty("/run/target"));
    EXPECT_FALSE(fs::exists(kStore / "a"));
}

TEST(WithoutADescriptor, DirectoriesAreMadeAsFarAsTheFirstLevel)
{
    {
        const NoDescriptorLeft none;
        EXPECT_EQ(kp_mkdir("/dev/shm/zu-kp/a/b/c"), 0);
    }

    EXPECT_TRUE(fs::is_directory(kStore / "a"));
    EXPECT_FALSE(fs::exists(kStore / "a/b")); // who may write in `a` could turn the path elsewhere
}

TEST(WithoutADescriptor, ReadersAndWritersSayWhatTheyAlwaysSay)
{
    const DeclaredSegment shm("a");
    StderrCapture log;
    StdoutCapture output;

    {
        const NoDescriptorLeft none;
        EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
        EXPECT_EQ(kp_shm_instant_get_max_value_size("missing", nullptr), -1);
        EXPECT_EQ(kp_shm_instant_write("a", "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), -1);
        EXPECT_EQ(kp_shm_instant_write("b/c", "v", KP_TYPE_STRING, 1, 1, 1, 1, 1), -1);
    }

    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_instant_get_max_value_size: "
                                  "fd '/dev/shm/zu-kp/a' create fail",
                                  "ERROR: kp_shm_instant_write: "
                                  "open shm(increase 'ulimit -n'): Too many open files",
                                  "ERROR: kp_shm_instant_write: "
                                  "open shm(increase 'ulimit -n'): Too many open files"}));
    EXPECT_EQ(output.text(), "access failed\n");
    EXPECT_TRUE(fs::is_directory(kStore / "b"));
}

} // namespace
