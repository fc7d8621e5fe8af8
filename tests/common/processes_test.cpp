#include "common/system/processes.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace kp::tool;
using namespace kptest;

namespace {

struct stat status_of(const std::string &path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status;
}

} // namespace

// A child, since an emulator makes up what a process reads of itself.
TEST(ProcessOf, GivesNameUserAndStateOfAProcess)
{
    ChildProcess child([](Channel &parent) {
        if (prctl(PR_SET_NAME, "a) b\n") != 0 || !parent.tell("named"))
            return 1;
        return parent.hear() ? 0 : 1;
    });
    ASSERT_EQ(child.hear(), "named");

    EXPECT_TRUE(wait_until([&] { return process_of(child.pid()).state == 'S'; }));
    const Process process = process_of(child.pid());

    EXPECT_EQ(process.pid, child.pid());
    EXPECT_EQ(process.program, "a) b");
    EXPECT_EQ(process.user, user_name(geteuid()));
    EXPECT_EQ(process_text(process),
              std::to_string(child.pid()) + " a) b (" + user_name(geteuid()) + ")");
    (void)child.tell("end");
    EXPECT_EQ(child.wait(), 0);
}

TEST(StartOf, TellsProcessesApart)
{
    ASSERT_EQ(prctl(PR_SET_NAME, "a) 1 2 3"), 0);
    ChildProcess child([](Channel &parent) { return parent.hear() ? 0 : 1; });

    EXPECT_GT(start_of(getpid()), 0u);
    EXPECT_GE(start_of(child.pid()), start_of(getpid()));
    EXPECT_EQ(start_of(child.pid()), start_of(child.pid()));
    (void)child.tell("end");
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(start_of(child.pid()), 0u);
}

TEST(FindMappers, CountsTheHandlesOfAProcess)
{
    StoreProvider one("a");
    StoreProvider two("a");
    const struct stat status = status_of(segment_file_path("a"));

    const Mappers found = find_mappers(status.st_dev);

    const auto &mappers = found.of_file.at(file_id(status));
    ASSERT_EQ(mappers.size(), 1u);
    EXPECT_EQ(mappers[0].pid, getpid());
    EXPECT_EQ(mappers[0].writable, 2u);
    EXPECT_EQ(mappers[0].read_only, 0u);
    EXPECT_TRUE(mappers[0].is_store);
    EXPECT_FALSE(mappers[0].deleted);
    EXPECT_EQ(found.open_handles(file_id(status)), 2u);
}

TEST(FindMappers, SeesThatAFileWasRemoved)
{
    StoreProvider provider("a");
    const struct stat status = status_of(segment_file_path("a"));
    ASSERT_EQ(unlink(segment_file_path("a").c_str()), 0);

    const Mappers found = find_mappers(status.st_dev);

    EXPECT_TRUE(found.of_file.at(file_id(status)).at(0).deleted);
}

TEST(FindDescriptors, CountsWhatAProcessHasOpen)
{
    const std::size_t before = find_descriptors().of_process.at(getpid()).open;
    const int fd = dup(STDIN_FILENO);

    const std::size_t after = find_descriptors().of_process.at(getpid()).open;
    (void)close(fd);

    EXPECT_EQ(after, before + 1);
}

TEST(GroupsOf, HasTheEffectiveGroup)
{
    EXPECT_TRUE(groups_of(getpid()).value().contains(getegid()));
    EXPECT_EQ(groups_of(-1), std::nullopt);
}

TEST(HiddenProcessesText, AgreesWithItsNumber)
{
    EXPECT_EQ(hidden_processes_text(1), "1 process shows only to root");
    EXPECT_EQ(hidden_processes_text(2), "2 processes show only to root");
}
