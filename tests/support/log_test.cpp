#include "support/log.h"
#include "testing/capture.h"
#include "testing/child.h"

#include <gtest/gtest.h>

using namespace kptest;

namespace {

void say_at_every_level()
{
    KP_TRACE("t\n");
    KP_DEBUG("d\n");
    KP_INFO("i\n");
    KP_WARN("w\n");
    KP_ERROR("e\n");
    KP_FATAL("f\n");
}

std::string said_at_every_level_under(uint32_t user_level)
{
    kp_xlog_set_user_level(user_level);
    StderrCapture log;
    say_at_every_level();
    return log.text_without_line_numbers();
}

int counted(int &evaluations)
{
    return ++evaluations;
}

void say_where_it_was_called(kp::LogSite site = kp::LogSite::current())
{
    KP_LOG_AT(KP_LEVEL_ERROR, site, "called\n");
}

class LeavesTheUserLevel : public testing::Test {
  protected:
    ~LeavesTheUserLevel() override
    {
        kp_xlog_set_user_level(KP_LEVEL_WARN);
    }
};

class LogLine : public LeavesTheUserLevel {};
class UserLevel : public LeavesTheUserLevel {};
class LevelOfAName : public LeavesTheUserLevel {};

TEST_F(LogLine, LeavesABufferedStreamAtOnce)
{
    StderrCapture log;

    const int status = status_of_child([] {
        (void)std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        say_where_it_was_called({"here", 1});
        return true; // and ends without flushing anything
    });

    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: here: called\n\033[0m");
}

TEST_F(LogLine, IsColourLevelFunctionLineTextAndReset)
{
    StderrCapture log;

    const int line = __LINE__ + 1;
    KP_ERROR("tag is %s\n", "null");

    EXPECT_EQ(log.text(),
              "\033[91mERROR: TestBody(" + std::to_string(line) + "): tag is null\n\033[0m");
}

TEST_F(LogLine, CarriesTheColourOfItsLevel)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_ALL),
              "\033[97mTRACE: say_at_every_level: t\n\033[0m"
              "\033[92mDEBUG: say_at_every_level: d\n\033[0m"
              "\033[96mINFO: say_at_every_level: i\n\033[0m"
              "\033[93mWARN: say_at_every_level: w\n\033[0m"
              "\033[91mERROR: say_at_every_level: e\n\033[0m"
              "\033[91mFATAL: say_at_every_level: f\n\033[0m");
}

TEST_F(LogLine, IsSignedByTheCallerOfAHelperThatLogsForIt)
{
    StderrCapture log;

    say_where_it_was_called();

    EXPECT_EQ(log.lines(), Lines{"ERROR: TestBody: called"});
}

TEST_F(LogLine, OfAFatalMessageLetsTheProcessGoOn)
{
    StderrCapture log;

    KP_FATAL("going on\n");

    EXPECT_EQ(log.lines(), Lines{"FATAL: TestBody: going on"});
}

TEST_F(UserLevel, IsWarnWhenTheLibraryIsLoaded)
{
    EXPECT_EQ(kp_xlog_get_user_level(), 4U);
}

TEST_F(UserLevel, OfWarnLetsWarnErrorAndFatalThrough)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_WARN),
              "\033[93mWARN: say_at_every_level: w\n\033[0m"
              "\033[91mERROR: say_at_every_level: e\n\033[0m"
              "\033[91mFATAL: say_at_every_level: f\n\033[0m");
}

TEST_F(UserLevel, OfDebugLetsEverythingButTraceThrough)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_DEBUG),
              "\033[92mDEBUG: say_at_every_level: d\n\033[0m"
              "\033[96mINFO: say_at_every_level: i\n\033[0m"
              "\033[93mWARN: say_at_every_level: w\n\033[0m"
              "\033[91mERROR: say_at_every_level: e\n\033[0m"
              "\033[91mFATAL: say_at_every_level: f\n\033[0m");
}

TEST_F(UserLevel, OfTraceLetsAllSixLevelsThrough)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_TRACE), said_at_every_level_under(KP_LEVEL_ALL));
}

TEST_F(UserLevel, OfFatalLetsFatalAloneThrough)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_FATAL),
              "\033[91mFATAL: say_at_every_level: f\n\033[0m");
}

TEST_F(UserLevel, OfOffSilencesEverything)
{
    EXPECT_EQ(said_at_every_level_under(KP_LEVEL_OFF), "");
}

TEST_F(UserLevel, AboveOffSilencesEverythingAndIsKept)
{
    EXPECT_EQ(said_at_every_level_under(100), "");
    EXPECT_EQ(kp_xlog_get_user_level(), 100U);
}

TEST_F(UserLevel, KeepsTheArgumentsOfASuppressedMessageFromBeingEvaluated)
{
    int evaluations = 0;
    StderrCapture log;

    KP_DEBUG("%d\n", counted(evaluations));
    KP_ERROR("%d\n", counted(evaluations));

    EXPECT_EQ(log.lines(), Lines{"ERROR: TestBody: 1"});
}

TEST_F(LevelOfAName, IsItsNumber)
{
    EXPECT_EQ(kp_xlog_get_level_by_str("ALL"), 0U);
    EXPECT_EQ(kp_xlog_get_level_by_str("TRACE"), 1U);
    EXPECT_EQ(kp_xlog_get_level_by_str("DEBUG"), 2U);
    EXPECT_EQ(kp_xlog_get_level_by_str("INFO"), 3U);
    EXPECT_EQ(kp_xlog_get_level_by_str("WARN"), 4U);
    EXPECT_EQ(kp_xlog_get_level_by_str("ERROR"), 5U);
    EXPECT_EQ(kp_xlog_get_level_by_str("FATAL"), 6U);
    EXPECT_EQ(kp_xlog_get_level_by_str("OFF"), 7U);
}

TEST_F(LevelOfAName, IgnoresWhatFollowsTheName)
{
    EXPECT_EQ(kp_xlog_get_level_by_str("WARNING"), 4U);
    EXPECT_EQ(kp_xlog_get_level_by_str("ERROR2"), 5U);
    EXPECT_EQ(kp_xlog_get_level_by_str("OFFLINE"), 7U);
    EXPECT_EQ(kp_xlog_get_level_by_str("ALLOW"), 0U);
}

TEST_F(LevelOfAName, IsTheUserLevelForATextThatNoNameBegins)
{
    kp_xlog_set_user_level(6);

    EXPECT_EQ(kp_xlog_get_level_by_str("INF"), 6U);
    EXPECT_EQ(kp_xlog_get_level_by_str("debug"), 6U);
    EXPECT_EQ(kp_xlog_get_level_by_str("3"), 6U);
    EXPECT_EQ(kp_xlog_get_level_by_str(" WARN"), 6U);
    EXPECT_EQ(kp_xlog_get_level_by_str(""), 6U);
}

TEST_F(LevelOfAName, IsTheUserLevelForNull)
{
    kp_xlog_set_user_level(2);

    EXPECT_EQ(kp_xlog_get_level_by_str(nullptr), 2U);
}

TEST(NameOfALevel, IsTheConstantOfItsNumber)
{
    EXPECT_STREQ(kp_xlog_get_level_str(0), "ALL");
    EXPECT_STREQ(kp_xlog_get_level_str(1), "TRACE");
    EXPECT_STREQ(kp_xlog_get_level_str(2), "DEBUG");
    EXPECT_STREQ(kp_xlog_get_level_str(3), "INFO");
    EXPECT_STREQ(kp_xlog_get_level_str(4), "WARN");
    EXPECT_STREQ(kp_xlog_get_level_str(5), "ERROR");
    EXPECT_STREQ(kp_xlog_get_level_str(6), "FATAL");
    EXPECT_STREQ(kp_xlog_get_level_str(7), "OFF");
}

TEST(NameOfALevel, IsEmptyAboveOff)
{
    EXPECT_STREQ(kp_xlog_get_level_str(8), "");
    EXPECT_STREQ(kp_xlog_get_level_str(UINT32_MAX), "");
}

} // namespace
