// What a child of fork() takes along: no descriptor of the library, whenever the fork comes.
#include "support/fork.h"

#include "testing/child.h"
#include "testing/locks.h"
#include "testing/process.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;

namespace {

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

int open_something()
{
    return open("/", O_PATH | O_CLOEXEC);
}

TEST(Fork, GivesTheChildAnotherNumber)
{
    const uint32_t number = kp::fork_generation();

    EXPECT_EQ(status_of_child([number] { return kp::fork_generation() != number; }), 0);
    EXPECT_EQ(kp::fork_generation(), number);
}

// While a fork goes on, or a child could be made that takes along what is not noted yet.
TEST(WhatChildrenMustNotTakeAlong, IsMadeAndClosedUnderOneLock)
{
    kp::OwnFd fd;
    std::array<int32_t, 2> ends{-1, -1};

    EXPECT_TRUE(waits_for(kp::fork_mutex, [&] { fd.reset(kp::own_fd(open_something).release()); }));
    EXPECT_TRUE(waits_for(kp::fork_mutex, [&] { fd.reset(); }));
    EXPECT_TRUE(waits_for(kp::fork_mutex, [&] { EXPECT_TRUE(kp::own_pipe(ends)); }));

    const kp::OwnFd read_end(ends[0]);
    const kp::OwnFd write_end(ends[1]);
}

TEST(WhatChildrenMustNotTakeAlong, IsEnteredAndLeftUnderOneLock)
{
    kp::ForkLink link{};

    EXPECT_TRUE(waits_for(kp::fork_mutex, [] { (void)kp::fork_generation(); }));
    EXPECT_TRUE(waits_for(kp::fork_mutex, [&] {
        kp::enter_fork_link(
            link, [](void *) {}, nullptr);
    }));
    EXPECT_TRUE(waits_for(kp::fork_mutex, [&] { kp::leave_fork_link(link); }));
}

TEST(Fork, WaitsForWhoeverIsAtTheRecords)
{
    (void)kp::fork_generation(); // from here on children are noticed
    pid_t child = -1;

    EXPECT_TRUE(waits_for(kp::fork_mutex, [&child] {
        child = fork();
        if (child == 0)
            _exit(0);
    }));

    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Fork, LeavesOthersDescriptorsOpen)
{
    const kp::OwnFd own = kp::own_fd([] { return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 64); });
    const kp::OwnFd far = kp::own_fd([] { return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 200); });
    const kp::UniqueFd other(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 65));
    (void)kp::fork_generation();

    const int status = status_of_child([&] {
        return !is_open(own.get()) && !is_open(far.get()) && is_open(other.get()) &&
               is_open(STDIN_FILENO);
    });

    EXPECT_EQ(status, 0);
}

TEST(OwnPipe, IsNoneWhenOneOfItsEndsCannotBeMoved)
{
    ChildProcess child([](Channel &) {
        (void)close(STDOUT_FILENO);
        (void)close(STDERR_FILENO);
        (void)close_range(kp::kFirstHighFd, ~0U, 0);
        const rlimit one_more{kp::kFirstHighFd + 1, kp::kFirstHighFd + 1};
        (void)setrlimit(RLIMIT_NOFILE, &one_more);
        std::array<int32_t, 2> ends{-1, -1};
        const bool is_made = kp::own_pipe(ends);
        const bool leaks =
            is_open(STDOUT_FILENO) || is_open(STDERR_FILENO) || is_open(kp::kFirstHighFd);
        return is_made || leaks ? 1 : 0;
    });

    EXPECT_EQ(child.wait(), 0);
}

TEST(OwnDescriptor, WithANumberBeyondTheSetIsNotNoted)
{
    const kp::MutexLock lock(kp::fork_mutex);

    kp::note_own_fd(1 << 20);
    kp::forget_own_fd(1 << 20);

    SUCCEED() << "AddressSanitizer judges";
}

} // namespace
