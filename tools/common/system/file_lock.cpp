#include "common/system/file_lock.h"

#include "common/clock.h"
#include "common/text/text.h"

#include <cerrno>
#include <sys/file.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr uint64_t kPatienceUs = kUsPerSecond;
constexpr useconds_t kPauseUs = 200; // the lock is held for microseconds

// Tries it at least once, and again until it says true or the time is over.
template <typename Try> void try_patiently(const Try &is_done)
{
    const uint64_t end = monotonic_us() + kPatienceUs;
    while (!is_done() && monotonic_us() < end)
        (void)usleep(kPauseUs);
}

} // namespace

FileLock::FileLock(const UniqueFd &fd)
{
    try_patiently([&] { return try_take(fd) || (errno != EWOULDBLOCK && errno != EINTR); });
}

FileLock::FileLock(FileLock &&other) noexcept : fd_(std::exchange(other.fd_, -1))
{
}

// Unlocks, because closing the descriptor is not enough: a mapping of the file keeps the lock, too.
void FileLock::give_back()
{
    const KeepErrno keep;
    if (fd_ >= 0)
        (void)flock(std::exchange(fd_, -1), LOCK_UN);
}

FileLock::~FileLock()
{
    give_back();
}

bool FileLock::try_take(const UniqueFd &fd)
{
    if (!is_held() && flock(fd.get(), LOCK_EX | LOCK_NB) == 0)
        fd_ = fd.get();
    return is_held();
}

void lock_all(const std::vector<LockedFile *> &files)
{
    std::vector<LockedFile *> left = files;
    try_patiently([&left] {
        std::erase_if(left,
                      [](LockedFile *file) { return !file->fd || file->lock.try_take(file->fd); });
        return left.empty();
    });
}

Problem locked_problem(const std::string &topic)
{
    return {kLimit, escaped(topic) + ": its file is locked by somebody, so it was left alone"};
}

} // namespace kp::tool
