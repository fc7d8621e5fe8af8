// Locks taken by scope.
#pragma once

#include "support/cancellation.h"

#include <pthread.h>

namespace kp {

// For threads that cannot be cancelled, as the library's own: a cancelled one would never give the
// lock back.
class PlainLock {
  public:
    explicit PlainLock(pthread_mutex_t &mutex) : mutex_(mutex)
    {
        (void)pthread_mutex_lock(&mutex_);
    }
    PlainLock(const PlainLock &) = delete;
    PlainLock &operator=(const PlainLock &) = delete;
    ~PlainLock()
    {
        (void)pthread_mutex_unlock(&mutex_);
    }

  private:
    pthread_mutex_t &mutex_;
};

// For all others, which cannot be cancelled while they hold it.
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t &mutex) : lock_(mutex)
    {
    }

  private:
    const NoCancellation scope_; // first, so that it ends last
    const PlainLock lock_;
};

} // namespace kp
