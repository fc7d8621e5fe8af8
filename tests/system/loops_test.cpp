// Each loop of examples/loops shows ten changes made by a provider and ends.
#include "testing/child.h"
#include "testing/process.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace kptest;

namespace {

// Gives the sockets of a process: its own, and with each peer one from and one to it.
std::ptrdiff_t sockets_of(pid_t pid)
{
    const fs::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fd");
    return std::count_if(begin(descriptors), end(descriptors), [](const fs::path &descriptor) {
        std::error_code gone;
        return fs::read_symlink(descriptor, gone).string().find("socket:") == 0;
    });
}

class Loop : public testing::TestWithParam<const char *> {};

TEST_P(Loop, ShowsTenChangesAndEnds)
{
    ChildProcess provider(std::vector<std::string>{KP_LOOP_PROVIDER});
    ASSERT_EQ(provider.hear(), "ready");
    ChildProcess loop(std::vector<std::string>{GetParam()});
    ASSERT_EQ(loop.hear(), "ready");
    // Its notices reach only whom it has taken in, which comes after its accepting the connection.
    ASSERT_TRUE(
        wait_until([&] { return sockets_of(provider.pid()) == 3 && is_at_rest(provider.pid()); }));

    for (int value = 1; value <= 10; ++value) {
        ASSERT_TRUE(provider.tell("next"));
        ASSERT_EQ(loop.hear(), "loops/number " + std::to_string(value));
    }
    EXPECT_EQ(loop.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Loop, testing::Values(KP_LOOPS), [](const auto &parameter) {
    const std::string path = parameter.param;
    return path.substr(path.rfind("/loop-") + 6);
});

} // namespace
