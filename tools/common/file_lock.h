// The lock on a segment's file. The library counts a handle, and removes a file, only while holding
// it. So whoever holds it can look at the counts and act on them before another handle is counted.
// Builds of the library that do not know this lock do not wait for it.
#pragma once

#include "layout/unique_fd.h"

namespace kp::tool {

// Holds the lock over a scope. Any descriptor of the file will do, also one for reading.
class FileLock {
  public:
    // Waits as long as the library does, at most a second. The descriptor must stay open meanwhile.
    explicit FileLock(const UniqueFd &fd);
    FileLock(FileLock &&other) noexcept;
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    FileLock &operator=(FileLock &&) = delete;
    ~FileLock();

    // False when another process did not give the lock back in time.
    bool is_held() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

} // namespace kp::tool
