// The lock of a file: what it does when it cannot be had.
#include "store/file_lock.h"

#include "testing/faults.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>

using namespace kptest;

namespace {

class FileLock : public testing::Test {
  protected:
    // Takes the lock for a moment; gives how often the system was asked, also to free it.
    long calls_of_a_lock() const
    {
        const CountCalls calls(Call::flock);
        {
            const kp::FileLock lock(fd_);
        }
        return calls.count();
    }
    bool is_free() const
    {
        const kp::UniqueFd other = open_again();
        return flock(other.get(), LOCK_EX | LOCK_NB) == 0;
    }
    kp::UniqueFd open_again() const
    {
        const std::string path = "/proc/self/fd/" + std::to_string(fd_.get());
        return kp::UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    }

    const kp::UniqueFd fd_{memfd_create("locked", MFD_CLOEXEC)};
};

} // namespace

TEST_F(FileLock, IsHeldOverItsScope)
{
    {
        const kp::FileLock lock(fd_);
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
}

TEST_F(FileLock, GoesOnAfterASignal)
{
    const FailNext signal(Call::flock, EINTR);

    EXPECT_EQ(calls_of_a_lock(), 3);
}

TEST_F(FileLock, GivesUpAtOnceWhereThereAreNoLocksAndFreesNothing)
{
    const FailNext none(Call::flock, ENOLCK);

    EXPECT_EQ(calls_of_a_lock(), 1);
}

TEST_F(FileLock, GivesUpAfterASecondAndFreesNothing)
{
    const kp::UniqueFd other = open_again();
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    const auto start = std::chrono::steady_clock::now();

    const long calls = calls_of_a_lock();

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_GT(calls, 2);
    EXPECT_LE(calls, 1010); // but for the first ones, a millisecond lies between two of them
    EXPECT_FALSE(is_free());
}
