#include "common/config/configuration_file.h"

#include "layout/unique_fd.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace kp;
using namespace kp::tool;

TEST(ConfigurationText, IsAFilesText)
{
    const std::string text(10'000, 'x');
    std::ofstream("/run/file") << text;

    EXPECT_EQ(configuration_text("/run/file").value, text);
}

TEST(ConfigurationText, ComesThroughAPipeWhoseWriterTakesHisTime)
{
    ASSERT_EQ(mkfifo("/run/pipe", 0600), 0);
    std::thread writer([] {
        std::ofstream pipe("/run/pipe");
        (void)(pipe << "one\n" << std::flush);
        (void)usleep(10'000);
        (void)(pipe << "two\n");
    });

    const auto text = configuration_text("/run/pipe");
    writer.join();

    EXPECT_EQ(text.value, "one\ntwo\n") << text.problem;
}

TEST(ConfigurationText, IsNotAwaitedForEver)
{
    ASSERT_EQ(mkfifo("/run/pipe", 0600), 0);
    EXPECT_EQ(configuration_text("/run/pipe").problem, "/run/pipe: nobody writes to this pipe");

    const UniqueFd silent(open("/run/pipe", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(configuration_text("/run/pipe").problem, "/run/pipe: nobody writes to this pipe");
}

TEST(ConfigurationText, HasAnEnd)
{
    EXPECT_EQ(configuration_text("/dev/zero").problem, "/dev/zero: has no end");
}

TEST(ConfigurationText, IsThatOfAFileThatCanBeRead)
{
    EXPECT_EQ(configuration_text("/run").problem, "/run: Is a directory");
    EXPECT_EQ(configuration_text("/run/nothing").problem,
              "/run/nothing: No such file or directory");
}
