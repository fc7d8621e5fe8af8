#include "common/device/counts_lock.h"

#include "layout/segment.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <time.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr int kLooksAtLock = 5;
constexpr long kPauseAtLockNs = 10'000'000;

} // namespace

// The C library keeps the value in the first 32 bits, the number of waiting threads in the next 32,
// and behind them a mark that processes share the semaphore. So a semaphore that was made is never
// all zeros.
std::optional<CountsLock> look_at_counts_lock(TopicOpener &opener, const std::string &topic)
{
    Problem problem;
    const UniqueFd fd = opener.open(topic, problem);
    std::array<uint8_t, sizeof(sem_t)> bytes{};
    if (!fd || pread(fd.get(), bytes.data(), bytes.size(), offsetof(Segment, sem)) !=
                   static_cast<ssize_t>(bytes.size()))
        return std::nullopt;
    CountsLock lock;
    lock.is_made = std::any_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
    std::memcpy(&lock.value, bytes.data(), sizeof(lock.value));
    return lock;
}

std::vector<std::string> topics_that_stay_locked(TopicOpener &opener,
                                                 std::vector<std::string> topics)
{
    for (int look = 0; look < kLooksAtLock && !topics.empty(); ++look) {
        if (look > 0) {
            const timespec pause{0, kPauseAtLockNs};
            (void)nanosleep(&pause, nullptr);
        }
        std::erase_if(topics, [&opener](const std::string &topic) {
            const auto lock = look_at_counts_lock(opener, topic);
            return !lock || !lock->is_taken();
        });
    }
    return topics;
}

} // namespace kp::tool
