// Whether something takes a lock.
#pragma once

#include "testing/process.h"

#include <atomic>
#include <functional>
#include <pthread.h>
#include <thread>

namespace kptest {

// Says whether `action` waits while somebody holds the mutex. It is given a moment to show that it
// does not.
inline bool waits_for(pthread_mutex_t &mutex, const std::function<void()> &action)
{
    std::atomic<bool> is_done = false;
    (void)pthread_mutex_lock(&mutex);
    std::thread other([&] {
        action();
        is_done = true;
    });
    const bool waits = !wait_until([&] { return is_done.load(); }, std::chrono::milliseconds(50));
    (void)pthread_mutex_unlock(&mutex);
    other.join();
    return waits;
}

} // namespace kptest
