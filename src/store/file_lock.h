// The lock on a segment's file: whoever counts a handle in and sees that the file is still linked, and
// whoever removes the file after the last handle, does so under it. Else an open could count itself
// into a file that is just being removed.
#pragma once

#include "layout/unique_fd.h"

namespace kp {

// Holds the lock over a scope, or goes on without it when its holder does not give it back within a
// second: a stopped process must not hang others. Given back by name, since the mapping of a file keeps
// the lock as long as the descriptor that it was taken with.
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
