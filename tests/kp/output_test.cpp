// What every command does when nobody takes its output.
#include "kp_run.h"

#include <gtest/gtest.h>

using namespace kptest;

class Output : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Output, ThatMeetsAFullDiskIsReported)
{
    put_double("a", 1);

    const Ran ran = kp(GetParam(), {.output_file = "/dev/full"});

    EXPECT_EQ(ran.err, "kp: standard output: No space left on device\n");
    EXPECT_EQ(ran.code, 5);
}

TEST_P(Output, ThatNobodyReadsAnyMoreEndsTheCommandQuietly)
{
    put_double("a", 1);

    const Ran ran = kp(GetParam(), {.close_output_after = 1});

    EXPECT_EQ(ran.err, "");
    EXPECT_LE(ran.code, 1); // what doctor says of findings, and hz of topics that rest
}

INSTANTIATE_TEST_SUITE_P(
    OfEveryCommandThatPrintsTopics, Output,
    testing::Values(
        std::vector<std::string>{"help"}, std::vector<std::string>{"get", "--help"},
        std::vector<std::string>{"list"}, std::vector<std::string>{"list", "-l"},
        std::vector<std::string>{"get", "a"}, std::vector<std::string>{"get", "#", "-j"},
        std::vector<std::string>{"info", "a"}, std::vector<std::string>{"dump"},
        std::vector<std::string>{"record", "#"}, std::vector<std::string>{"export", "--prometheus"},
        std::vector<std::string>{"set", "a", "2", "--peer-wait", "0"},
        std::vector<std::string>{"doctor", "-j"}, std::vector<std::string>{"watch", "#"},
        std::vector<std::string>{"hz", "#", "-w", "0.05"}));
