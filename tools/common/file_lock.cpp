#include "common/file_lock.h"

#include "common/clock.h"

#include <cerrno>
#include <sys/file.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr uint64_t kPatienceUs = kUsPerSecond;
constexpr useconds_t kPauseUs = 200; // the lock is held for microseconds

bool take(int fd)
{
    const uint64_t end = monotonic_us() + kPatienceUs;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || monotonic_us() >= end)
            return false;
        (void)usleep(kPauseUs);
    }
    return true;
}

} // namespace

FileLock::FileLock(const UniqueFd &fd) : fd_(take(fd.get()) ? fd.get() : -1)
{
}

FileLock::FileLock(FileLock &&other) noexcept : fd_(std::exchange(other.fd_, -1))
{
}

// Unlocks, because closing the descriptor is not enough: a mapping of the file keeps the lock, too.
FileLock::~FileLock()
{
    const KeepErrno keep;
    if (fd_ >= 0)
        (void)flock(fd_, LOCK_UN);
}

} // namespace kp::tool
