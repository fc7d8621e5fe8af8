// The lock on a segment's file. Whoever opens a handle counts it and looks whether the file still
// has its name while holding this lock; so does whoever removes the file after the last handle.
// Without the lock, a handle could be counted in a file that is just being removed.
#pragma once

#include "layout/unique_fd.h"

namespace kp {

// Holds the lock over a scope, or goes on without it when its holder does not give it back within a
// second: a stopped process must not hang others. The destructor unlocks, because closing the
// descriptor is not enough: the mapping of a file keeps the lock, too.
class FileLock {
  public:
    // The descriptor must stay open for as long as the lock.
    explicit FileLock(const UniqueFd &fd);
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    ~FileLock();

  private:
    const int fd_;
    const bool held_;
};

} // namespace kp
