// The lock on a segment's file under which handles are counted in and files removed: whoever holds it
// can look at the counts and act before anybody else counts itself in. Builds of the library without
// this lock do not wait for it.
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

    // False when its holder did not give it back.
    bool is_held() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

} // namespace kp::tool
