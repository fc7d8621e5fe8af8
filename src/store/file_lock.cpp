#include "store/file_lock.h"

#include "layout/keep_errno.h"
#include "support/clock.h"

#include <cerrno>
#include <sys/file.h>
#include <unistd.h>

namespace kp {

namespace {

constexpr int64_t kPatienceNs = 1'000'000'000;

// The lock is held for some microseconds, so the first looks follow each other closely.
constexpr useconds_t kFirstPauseUs = 20;
constexpr useconds_t kLongestPauseUs = 1000;

bool take(int fd)
{
    const int64_t start = monotonic_ns();
    useconds_t pause = kFirstPauseUs;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || monotonic_ns() - start >= kPatienceNs)
            return false;
        (void)usleep(pause);
        pause = pause < kLongestPauseUs ? pause * 2 : kLongestPauseUs;
    }
    return true;
}

} // namespace

FileLock::FileLock(const UniqueFd &fd) : fd_(fd.get()), held_(take(fd.get()))
{
}

FileLock::~FileLock()
{
    const KeepErrno keep;
    if (held_)
        (void)flock(fd_, LOCK_UN);
}

} // namespace kp
