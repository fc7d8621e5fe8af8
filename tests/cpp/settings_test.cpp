// The interface compiled with each of the settings does the same.
#include "testing/child.h"

#include <gtest/gtest.h>

using namespace kptest;

namespace {

class CppSettings : public testing::TestWithParam<const char *> {};

TEST_P(CppSettings, MakeNoDifference)
{
    ChildProcess program(std::vector<std::string>{GetParam()});

    EXPECT_EQ(program.hear(), "done");
    EXPECT_EQ(program.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, CppSettings, testing::Values(KP_SETTINGS), [](const auto &parameter) {
    const std::string path = parameter.param;
    return path.substr(path.rfind("_in_") + 4);
});

} // namespace
