// The store as files: finding topics at any depth and opening them for reading only. No link is
// followed below the store's root, and nothing is ever created.
#pragma once

#include "common/pattern.h"
#include "layout/unique_fd.h"

#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace kp::tool {

// An entry of the store, whatever it turns out to be.
struct StoreFile {
    std::string topic;
    ino_t inode;
    unsigned char type; // DT_REG for a segment
};

// One directory of the store, relative to its root; "" is the root itself.
struct StoreDirectory {
    std::vector<StoreFile> files;
    std::vector<std::string> directories;
};

// Opens the root or, level by level, a directory below it.
UniqueFd open_store_directory(const std::string &directory, Problem &problem);

// Lists one directory; a name is the topic, relative to the root. Nothing with a problem.
std::optional<StoreDirectory> list_directory(const std::string &directory, Problem &problem);

struct StoreListing {
    std::vector<StoreFile> files; // sorted by topic
    std::vector<std::string> directories;
    std::vector<Problem> problems;   // directories that cannot be read
    std::vector<std::string> closed; // their names
};

StoreListing list_store(const Selection &selection);

// Says whether an entry is a regular file of a segment's size; else the problem names what it is.
bool is_segment_file(const struct stat &status, const std::string &topic, Problem &problem);

// Opens topics one after another, keeping the directory of the last one at hand.
class TopicOpener {
  public:
    // A descriptor for reading, or a problem: no such topic, no permission, not a segment.
    UniqueFd open(const std::string &topic, Problem &problem);
    // The same for whatever lies there, so that the caller finds out by reading.
    UniqueFd open_any(const std::string &topic, Problem &problem);
    // Why an open file is none.
    static Problem not_a_segment(const std::string &topic, const UniqueFd &fd);
    // The file's status without opening it; false with a problem.
    bool status(const std::string &topic, struct stat &status, Problem &problem);
    // Removes the file; false with a problem.
    bool remove(const std::string &topic, Problem &problem);

  private:
    // Where the topic's file lies, or -1 with a problem; sets `name_` to its name there.
    int directory_of(const std::string &topic, Problem &problem);

    std::string directory_;
    std::string name_;
    std::unique_ptr<UniqueFd> directory_fd_;
};

} // namespace kp::tool
