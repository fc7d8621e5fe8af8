// Waits on a word that several processes share.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace bench {

// Returns when the word may have changed from `seen`, or after the time.
inline void futex_wait(std::atomic<uint32_t> &word, uint32_t seen, uint32_t timeout_ms)
{
    const timespec timeout{timeout_ms / 1000, static_cast<long>(timeout_ms % 1000) * 1'000'000};
    (void)syscall(SYS_futex, &word, FUTEX_WAIT, seen, &timeout, nullptr, 0);
}

inline void futex_wake_all(std::atomic<uint32_t> &word)
{
    (void)syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

} // namespace bench
