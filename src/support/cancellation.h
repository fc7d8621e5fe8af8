// Keeps a thread from being cancelled where it would leave a lock taken or a count too high.
#pragma once

#include <pthread.h>

namespace kp {

// Puts off the cancellation of the calling thread to the end of a scope. Preserves errno.
class NoCancellation {
  public:
    NoCancellation()
    {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
    }
    NoCancellation(const NoCancellation &) = delete;
    NoCancellation &operator=(const NoCancellation &) = delete;
    ~NoCancellation()
    {
        (void)pthread_setcancelstate(before_, nullptr);
    }

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace kp
