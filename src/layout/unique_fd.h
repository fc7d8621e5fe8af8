// Owners of descriptors and directory streams. Their destructors preserve errno, so that a failure
// can be reported after its clean-up.
#pragma once

#include "layout/keep_errno.h"

#include <dirent.h>
#include <unistd.h>
#include <utility>

namespace kp {

struct CloseFd {
    void operator()(int fd) const
    {
        (void)close(fd);
    }
};

// Owns a descriptor and closes it with `Close`.
template <typename Close> class FdOwner {
  public:
    FdOwner() = default;
    explicit FdOwner(int fd) : fd_(fd)
    {
    }
    FdOwner(FdOwner &&other) noexcept : fd_(other.release())
    {
    }
    FdOwner(const FdOwner &) = delete;
    FdOwner &operator=(const FdOwner &) = delete;
    FdOwner &operator=(FdOwner &&) = delete;
    ~FdOwner()
    {
        reset();
    }

    explicit operator bool() const
    {
        return fd_ >= 0;
    }
    int get() const
    {
        return fd_;
    }
    int release()
    {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old < 0)
            return;
        const KeepErrno keep;
        Close()(old);
    }

  private:
    int fd_ = -1;
};

using UniqueFd = FdOwner<CloseFd>;

class UniqueDir {
  public:
    explicit UniqueDir(DIR *dir) : dir_(dir)
    {
    }
    UniqueDir(const UniqueDir &) = delete;
    UniqueDir &operator=(const UniqueDir &) = delete;
    ~UniqueDir()
    {
        if (!dir_)
            return;
        const KeepErrno keep;
        (void)closedir(dir_);
    }

    explicit operator bool() const
    {
        return dir_ != nullptr;
    }
    // Starts again at the first entry, with what the directory holds now.
    void rewind() const
    {
        rewinddir(dir_);
    }
    // Gives the next entry and leaves out "." and ".."; null at the end.
    const dirent *next() const
    {
        const dirent *entry = readdir(dir_);
        while (entry && is_self_or_parent(entry->d_name))
            entry = readdir(dir_);
        return entry;
    }

  private:
    static bool is_self_or_parent(const char *name)
    {
        return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
    }

    DIR *dir_;
};

} // namespace kp
