// The lock on a segment's file. The library counts a handle, and removes a file, only while holding
// it. So whoever holds it can look at the counts and act on them before another handle is counted.
// Builds of the library that do not know this lock do not wait for it.
#pragma once

#include "common/problem.h"
#include "layout/unique_fd.h"

#include <string>
#include <vector>

namespace kp::tool {

// Holds the lock over a scope. Any descriptor of the file will do, also one for reading.
class FileLock {
  public:
    FileLock() = default;
    // Waits as long as the library does, at most a second. The descriptor must stay open meanwhile.
    explicit FileLock(const UniqueFd &fd);
    FileLock(FileLock &&other) noexcept;
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    FileLock &operator=(FileLock &&) = delete;
    ~FileLock();

    // Takes the lock if nobody has it, and says whether it is held then.
    bool try_take(const UniqueFd &fd);
    void give_back();

    // False when another process did not give the lock back in time.
    bool is_held() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

// So many are locked at once at most. Each needs a descriptor meanwhile, of which most programs may
// have 1024.
constexpr std::size_t kMostLockedFiles = 500;

// A file that is to be locked.
struct LockedFile {
    UniqueFd fd; // empty: there is nothing to lock
    FileLock lock = {};
};

// Takes the locks of many files. It waits as long as for a single one in all, since anybody who may
// read the files can hold all of their locks. Those that are not held afterwards are somebody's.
void lock_all(const std::vector<LockedFile *> &files);

// The same for items that each have a file to be locked in this member.
template <typename Item> void lock_all(std::vector<Item> &items, LockedFile Item::*file)
{
    std::vector<LockedFile *> files;
    files.reserve(items.size());
    for (Item &item : items)
        files.push_back(&(item.*file));
    lock_all(files);
}

// Why nothing was done to a file whose lock was not given back.
Problem locked_problem(const std::string &topic);

} // namespace kp::tool
