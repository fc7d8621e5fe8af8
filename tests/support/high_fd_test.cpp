#include "support/high_fd.h"

#include "testing/child.h"
#include "testing/faults.h"
#include "testing/process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace kptest;

namespace {

// Gives the exit status of a child that runs `body` with descriptor 2 closed, so that it is given
// out next.
std::optional<int> without_standard_error(const std::function<int()> &body)
{
    ChildProcess child([&](Channel &) {
        (void)close(STDERR_FILENO);
        return body();
    });
    return child.wait();
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// Keeps the process from getting one more descriptor above the standard streams.
void allow_no_high_descriptor()
{
    const rlimit limit{kp::kFirstHighFd, kp::kFirstHighFd};
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

TEST(HighFd, LeavesANumberAboveTheStandardStreamsAlone)
{
    const int made = open("/", O_PATH | O_CLOEXEC);
    ASSERT_GE(made, kp::kFirstHighFd);

    const kp::UniqueFd fd = kp::high_fd(made);

    EXPECT_EQ(fd.get(), made);
}

TEST(HighFd, LeavesTheFirstNumberAboveTheStandardStreamsAlone)
{
    ASSERT_EQ(dup2(STDIN_FILENO, kp::kFirstHighFd), kp::kFirstHighFd);

    const kp::UniqueFd fd = kp::high_fd(kp::kFirstHighFd);

    EXPECT_EQ(fd.get(), kp::kFirstHighFd);
}

TEST(HighFd, LeavesADirectoryWithTheFirstNumberAlone)
{
    kp::UniqueFd first(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_GE(first.get(), kp::kFirstHighFd);
    if (first.get() != kp::kFirstHighFd) {
        ASSERT_EQ(dup2(first.get(), kp::kFirstHighFd), kp::kFirstHighFd);
        first.reset(kp::kFirstHighFd);
    }
    DIR *const made = fdopendir(first.release());

    const kp::UniqueDir dir(kp::high_dir(made));

    EXPECT_EQ(dirfd(made), kp::kFirstHighFd);
    EXPECT_TRUE(is_open(kp::kFirstHighFd));
    EXPECT_NE(dir.next(), nullptr);
}

TEST(HighFd, GivesNoneForNone)
{
    errno = ENOENT;

    const kp::UniqueFd fd = kp::high_fd(-1);

    EXPECT_FALSE(fd);
    EXPECT_EQ(errno, ENOENT);
}

TEST(HighFd, MovesTheNumberOfAStandardStream)
{
    const auto status = without_standard_error([] {
        const int made = open("/", O_PATH | O_CLOEXEC);
        const kp::UniqueFd fd = kp::high_fd(made);
        const bool moved = made == STDERR_FILENO && fd.get() >= kp::kFirstHighFd;
        const bool on_exec = fcntl(fd.get(), F_GETFD) == FD_CLOEXEC;
        return moved && on_exec && !is_open(STDERR_FILENO) ? 0 : 1;
    });

    EXPECT_EQ(status, 0);
}

TEST(HighFd, ClosesWhatItCannotMove)
{
    const auto status = without_standard_error([] {
        const int made = open("/", O_PATH | O_CLOEXEC);
        allow_no_high_descriptor();
        const kp::UniqueFd fd = kp::high_fd(made);
        const int cause = errno;
        return !fd && cause != 0 && !is_open(STDERR_FILENO) ? 0 : 1;
    });

    EXPECT_EQ(status, 0);
}

TEST(HighFd, MovesADirectory)
{
    const auto status = without_standard_error([] {
        DIR *made = opendir("/");
        const int low = made ? dirfd(made) : -1;
        const kp::UniqueDir dir(kp::high_dir(made));
        const bool moved = low == STDERR_FILENO && dir && !is_open(STDERR_FILENO);
        return moved && dir.next() ? 0 : 1;
    });

    EXPECT_EQ(status, 0);
}
