// Clean-up that leaves errno alone.
#pragma once

#include <cerrno>

namespace kp {

// Keeps errno as it is over a scope.
class KeepErrno {
  public:
    KeepErrno() = default;
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno()
    {
        errno = saved_;
    }

  private:
    int saved_ = errno;
};

} // namespace kp
