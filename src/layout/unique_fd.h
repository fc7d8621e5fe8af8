// Owners of descriptors and directory streams. Their destructors preserve errno, so that a failure
// can be reported after its clean-up.
#pragma once

#include "layout/keep_errno.h"

#include <dirent.h>
#include <unistd.h>
#include <utility>

namespace kp {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd)
    {
    }
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release())
    {
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd &operator=(UniqueFd &&) = delete;
    ~UniqueFd()
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
        (void)close(old);
    }

  private:
    int fd_ = -1;
};

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
    // Goes back to the first entry, and to what the directory holds now.
    void rewind() const
    {
        rewinddir(dir_);
    }
    // The next entry but "." and "..", or null at the end.
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
