// The private view of the file system in which every test binary runs.
#pragma once

#include <string>

namespace kptest {

// Gives this process a mount namespace of its own with an empty /dev/shm and /run. The process must
// have one thread only. Ends it with a message when the system does not allow that. An ordinary
// user becomes root of a user namespace for it.
void enter_private_mounts();

// An empty tmpfs of `pages` pages, which is mounted at a directory for as long as the object lives.
// The directory is made when it is missing.
class TinyTmpfs {
  public:
    TinyTmpfs(std::string directory, unsigned pages);
    TinyTmpfs(const TinyTmpfs &) = delete;
    TinyTmpfs &operator=(const TinyTmpfs &) = delete;
    ~TinyTmpfs();

    // Takes every page that is left.
    void fill() const;

  private:
    std::string directory_;
};

} // namespace kptest
