#include "topics/state_file.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using testing::UnorderedElementsAre;

namespace {

const std::string kPath = "/run/state";

std::unique_ptr<StateFile> opened()
{
    auto file = StateFile::open(kPath);
    EXPECT_EQ(file.problem, "");
    return file ? std::move(*file.value) : nullptr;
}

void write_file(const std::string &text)
{
    std::ofstream(kPath, std::ios::binary) << text;
}

} // namespace

TEST(StateFile, RemembersTopicsAcrossRuns)
{
    {
        const auto file = opened();
        file->add("kp/a");
        file->add("kp/b");
        file->remove("kp/a");
    }
    EXPECT_THAT(opened()->topics(), UnorderedElementsAre("kp/b"));
}

TEST(StateFile, RemembersWhichTopicsHadProviders)
{
    {
        const auto file = opened();
        file->add("kp/a", true);
        file->add("kp/b", true);
        file->add("kp/b", false);
        file->add("kp/c", true);
        file->remove("kp/c");
        file->add("kp/c", false);
    }
    (void)opened(); // writes it anew

    const auto file = opened();

    EXPECT_THAT(file->topics(), UnorderedElementsAre("kp/a", "kp/b", "kp/c"));
    EXPECT_TRUE(file->is_provided("kp/a"));
    EXPECT_FALSE(file->is_provided("kp/b"));
    EXPECT_FALSE(file->is_provided("kp/c"));
}

TEST(StateFile, IgnoresALastLineThatACrashCutShort)
{
    write_file("+kp/a\n+kp/half");

    EXPECT_THAT(opened()->topics(), UnorderedElementsAre("kp/a"));
}

TEST(StateFile, IgnoresLinesThatAreNoTopics)
{
    write_file("\n+\n?kp/a\n+kp/+\n+kp/\x01\n+kp/good\n");

    EXPECT_THAT(opened()->topics(), UnorderedElementsAre("kp/good"));
}

TEST(StateFile, DoesNotGrowWithoutEnd)
{
    const auto file = opened();
    for (int round = 0; round < 20'000; ++round) {
        file->add("kp/a");
        file->remove("kp/a");
    }

    EXPECT_LT(std::filesystem::file_size(kPath), 10'000u);
}

TEST(StateFile, BelongsToOneBridge)
{
    const auto file = opened();

    EXPECT_EQ(StateFile::open(kPath).problem, "/run/state: another bridge uses this state file");
}

TEST(StateFile, SaysWhyItCannotBeWritten)
{
    EXPECT_EQ(StateFile::open("/run/nowhere/state").problem,
              "/run/nowhere/state.lock: No such file or directory");
}

TEST(StateFile, WithoutAPathKeepsNothing)
{
    auto file = StateFile::open("");
    (*file.value)->add("kp/a");

    EXPECT_TRUE((*file.value)->has("kp/a"));
}

TEST(StateFile, CountsNoRunThatHasNotCaughtUp)
{
    std::filesystem::remove(kPath);
    opened()->leave(1'000'000);
    (void)opened(); // and is killed
    {
        const auto file = opened();
        file->start(1'000'000);
        file->take("kp/a"); // and is killed
    }

    const auto file = opened();

    EXPECT_FALSE(file->had_caught_up());
    EXPECT_EQ(file->last_used(), 1'000'000u);
}

TEST(StateFile, CountsARunThatHasCaughtUp)
{
    std::filesystem::remove(kPath);
    {
        const auto file = opened();
        file->start(1'000'000);
        file->catch_up(2'000'000); // and is killed
    }

    const auto file = opened();

    EXPECT_TRUE(file->had_caught_up());
    EXPECT_EQ(file->last_used(), 2'000'000u);
}

TEST(StateFile, CountsARunUntilItLeaves)
{
    std::filesystem::remove(kPath);
    {
        const auto file = opened();
        file->start(1'000'000);
        file->catch_up(2'000'000);
        file->leave(3'000'000);
    }

    const auto file = opened();

    EXPECT_TRUE(file->had_caught_up());
    EXPECT_EQ(file->last_used(), 3'000'000u);
}
