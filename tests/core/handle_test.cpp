// Making handles: what a new one holds, what each failure leaves, and the level from the
// environment.
#include "core/mesh.h"
#include "notify/endpoint.h"
#include "testing/faults.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

using namespace kptest;
using testing::IsEmpty;

namespace {

// Sets KP_XLOG_USER_LEVEL for the length of a test, and the level back to the start value.
class LevelVariable {
  public:
    explicit LevelVariable(const char *value)
    {
        (void)setenv("KP_XLOG_USER_LEVEL", value, 1);
    }
    ~LevelVariable()
    {
        (void)unsetenv("KP_XLOG_USER_LEVEL");
        kp_xlog_set_user_level(KP_LEVEL_WARN);
    }
};

TEST(NewHandle, HoldsNothingYet)
{
    const Handle handle;

    EXPECT_NE(handle->notify, nullptr);
    EXPECT_THAT(topics_of(handle), IsEmpty());
    EXPECT_EQ(handle->user_data, nullptr);
    EXPECT_EQ(kplist_size(handle->sub_topics), 0U);
    EXPECT_EQ(kplist_size(handle->sub_patterns), 0U);
    EXPECT_EQ(handle->flags, 0U);
}

TEST(NewHandle, CarriesBothNoticesReadyMade)
{
    const Handle handle;

    EXPECT_EQ(handle->write_info.type, 1);
    EXPECT_THAT(marks_of(handle), IsEmpty());
    EXPECT_EQ(handle->new_tag_info.type, 2);
    EXPECT_STREQ(handle->new_tag_info.topic, "");
}

TEST(NewHandle, StandsInTheDirectoryUnderItsName)
{
    const Handle handle("pump");

    EXPECT_TRUE(std::filesystem::is_socket("/run/providers/pump"));
}

TEST(NewHandle, MakesUpANumberForANullOrEmptyName)
{
    const Handle unnamed(nullptr);
    const Handle empty("");

    EXPECT_THAT(unnamed->notify->name, testing::ContainsRegex("^[0-9]+$"));
    EXPECT_THAT(empty->notify->name, testing::ContainsRegex("^[0-9]+$"));
}

TEST(NewHandle, ReportsThatItsRecordFindsNoMemory)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext allocation(Call::calloc);

    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_new: kp init: malloc kp_t: Cannot allocate memory\n\033[0m");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewHandle, FailsSilentlyWithoutADictionary)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNth allocation(Call::calloc, 2);

    errno = 0;
    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewHandle, FailsSilentlyWithoutAMutex)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext mutex(Call::pthread_mutex_init);

    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewHandle, FailsSilentlyWithoutItsDirectoryAndLeavesTheCauseInErrno)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext directory(Call::mkdir, EROFS);

    errno = 0;
    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewHandle, AddsNoMessageToThatOfAFailedEndpoint)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNext socket(Call::socket);

    errno = 0;
    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: notify_server_init: opening socket: Too many open files",
                                  "ERROR: kp_notify_init: init server failed"}));
    EXPECT_EQ(Holdings::now(), before);
}

TEST(NewHandle, LeavesNothingBehindWhenItsLastThreadCannotStart)
{
    StderrCapture log;
    const Holdings before = Holdings::now();
    const FailNth thread(Call::pthread_create, 3);

    EXPECT_EQ(kp_new("self", nullptr), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_init: client failed"});
    EXPECT_EQ(Holdings::now(), before);
    EXPECT_FALSE(exists("/run/providers/self"));
}

TEST(NewHandle, TakesTheUserLevelFromTheEnvironment)
{
    const LevelVariable variable("DEBUG");

    const Handle handle;

    EXPECT_EQ(kp_xlog_get_user_level(), 2U);
}

TEST(NewHandle, LetsTheEnvironmentOverrideALevelThatWasSet)
{
    const LevelVariable variable("FATAL");
    kp_xlog_set_user_level(KP_LEVEL_INFO);

    const Handle handle;

    EXPECT_EQ(kp_xlog_get_user_level(), 6U);
}

TEST(NewHandle, LetsDebugMessagesOfSubscriptionsThroughAtLevelDebug)
{
    const LevelVariable variable("DEBUG");
    const Handle handle;
    StderrCapture log;

    EXPECT_EQ(kp_sub_topic(handle, "a/b"), 0);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: sub_plain_topic: create tag [a/b]\n\033[0m");
}

TEST(NewHandle, KeepsTheLevelWhenTheVariableNamesNone)
{
    kp_xlog_set_user_level(KP_LEVEL_FATAL);
    const LevelVariable lower_case("debug");

    const Handle handle;

    EXPECT_EQ(kp_xlog_get_user_level(), 6U);
}

TEST(NewHandle, KeepsTheLevelWhenTheVariableIsANumber)
{
    kp_xlog_set_user_level(KP_LEVEL_FATAL);
    const LevelVariable digit("2");

    const Handle handle;

    EXPECT_EQ(kp_xlog_get_user_level(), 6U);
}

TEST(NewHandle, KeepsTheLevelWithoutTheVariable)
{
    (void)unsetenv("KP_XLOG_USER_LEVEL");
    kp_xlog_set_user_level(KP_LEVEL_ERROR);

    const Handle handle;

    EXPECT_EQ(kp_xlog_get_user_level(), 5U);
    kp_xlog_set_user_level(KP_LEVEL_WARN);
}

TEST(NewHandle, ReadsTheVariableEachTime)
{
    const LevelVariable first("TRACE");
    const Handle early("early");
    const LevelVariable second("ERROR");

    const Handle late("late");

    EXPECT_EQ(kp_xlog_get_user_level(), 5U);
}

} // namespace
