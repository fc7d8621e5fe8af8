// The programs of the README are the ones that are built here, and they do what it says.
#include "testing/child.h"
#include "testing/file_text.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using namespace kptest;
using testing::HasSubstr;

namespace {

std::string code_block(const std::string &path)
{
    return "```c\n" + file_text(path) + "```\n";
}

} // namespace

TEST(Readme, ShowsTheProviderThatIsBuilt)
{
    EXPECT_THAT(file_text(KP_SOURCE_DIR "/README.md"),
                HasSubstr(code_block(KP_SOURCE_DIR "/examples/provider.c")));
}

TEST(Readme, ShowsTheConsumerThatIsBuilt)
{
    EXPECT_THAT(file_text(KP_SOURCE_DIR "/README.md"),
                HasSubstr(code_block(KP_SOURCE_DIR "/examples/consumer.c")));
}

TEST(Examples, ConsumerPrintsWhatTheProviderWrites)
{
    ChildProcess consumer(std::vector<std::string>{KP_EXAMPLE_CONSUMER});
    ChildProcess provider(std::vector<std::string>{KP_EXAMPLE_PROVIDER});

    const auto first = consumer.hear();
    const auto second = consumer.hear();

    ASSERT_TRUE(first && second);
    EXPECT_THAT(*first, HasSubstr("plant/boiler/temperature: 2"));
    EXPECT_THAT(*second, HasSubstr("plant/boiler/temperature: 2"));
    EXPECT_NE(*first, *second);
}

TEST(Examples, LoopPrintsWhatTheProviderWrites)
{
    ChildProcess provider(std::vector<std::string>{KP_EXAMPLE_PROVIDER});
    const SegmentFile topic("plant/boiler/temperature");
    ASSERT_TRUE(wait_until([&] { return topic.exists(); }));
    ChildProcess loop(std::vector<std::string>{KP_EXAMPLE_LOOP});

    const auto first = loop.hear();
    const auto second = loop.hear();

    ASSERT_TRUE(first && second);
    EXPECT_THAT(*first, HasSubstr("plant/boiler/temperature: 2"));
    EXPECT_THAT(*second, HasSubstr("plant/boiler/temperature: 2"));
    EXPECT_NE(*first, *second);
}
