// The one walk through the store's directories: what a selection covers in them, at any depth.
// Anybody may write in the store, so the walk's cost is bounded by what a topic's name can be.
#pragma once

#include "common/names/selection.h"

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

// What a selection covers of one directory: files, and the directories that may hold more of it.
// Names are relative to the store's root; "" is the root itself.
struct StoreDirectory {
    std::vector<StoreFile> files;
    std::vector<std::string> directories;
};

// Reads an open directory, which nobody has read before through this descriptor. Nothing, with
// errno set, when that fails.
std::optional<StoreDirectory> read_directory(int fd, const std::string &name,
                                             const Selection &selection);

// What is done on a walk.
class StoreVisitor {
  public:
    virtual ~StoreVisitor() = default;

    // Gives the names of the directories below this one that are walked next. The descriptor is
    // open during the call.
    virtual std::vector<std::string> enter(const std::string &name, int fd,
                                           const struct stat &status) = 0;
    // This directory cannot be entered; the problem is kNothing when it is gone.
    virtual void miss(const std::string &name, const Problem &problem) = 0;
};

// Goes through the directories from the root down, each before those below it.
void walk_store(StoreVisitor &visitor);

struct StoreListing {
    std::vector<StoreFile> files; // sorted by topic
    std::vector<std::string> directories;
    std::vector<Problem> problems;   // of directories that cannot be read
    std::vector<std::string> closed; // the names of those directories
};

// Lists what a selection covers. A store that does not exist has no topics.
StoreListing list_store(const Selection &selection);

} // namespace kp::tool
