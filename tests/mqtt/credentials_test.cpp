#include "link/broker_link.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kp::mqtt;

namespace {

const std::string kPath = "/run/credentials";

void write_file(const std::string &text, mode_t mode)
{
    std::ofstream(kPath) << text;
    ASSERT_EQ(chmod(kPath.c_str(), mode), 0);
}

} // namespace

TEST(Credentials, AreTheFirstTwoLines)
{
    write_file("device\r\nse cret\nrest\n", 0600);

    const auto credentials = read_credentials(kPath);

    ASSERT_TRUE(credentials) << credentials.problem;
    EXPECT_EQ(credentials.value->user, "device");
    EXPECT_EQ(credentials.value->password, "se cret");
}

TEST(Credentials, AreRefusedWhereOthersCanReadThem)
{
    write_file("device\nsecret\n", 0604);

    EXPECT_EQ(read_credentials(kPath).problem,
              "/run/credentials: others can read or change it; chmod 0600 or 0640");
}

TEST(Credentials, MayBeReadByTheGroupButNotChanged)
{
    write_file("device\nsecret\n", 0640);
    EXPECT_TRUE(read_credentials(kPath));

    write_file("device\nsecret\n", 0660);
    EXPECT_FALSE(read_credentials(kPath));
}

TEST(Credentials, AreRefusedWhenMissingOrEmpty)
{
    EXPECT_EQ(read_credentials("/run/none").problem, "/run/none: No such file or directory");
    EXPECT_EQ(read_credentials("/run").problem, "/run: is no file");

    write_file("", 0600);
    EXPECT_EQ(read_credentials(kPath).problem,
              "/run/credentials: the first line must be the user's name");
}

TEST(Credentials, AreRefusedWithoutASecondLine)
{
    write_file("device\n", 0600);
    EXPECT_EQ(read_credentials(kPath).problem,
              "/run/credentials: the second line must be the password");

    write_file("device\n\n", 0600);
    EXPECT_TRUE(read_credentials(kPath));
}
