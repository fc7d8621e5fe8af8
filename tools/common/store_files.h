// The store as files: finds topics at any depth, opens and removes them. Somebody who may write in
// the store must not get the rights of somebody who runs a tool. So everything below the store's
// root is reached level by level through descriptors, and no link there is followed.
#pragma once

#include "common/file_id.h"
#include "common/selection.h"
#include "layout/unique_fd.h"

#include <fcntl.h>
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

// One directory of the store. Names are relative to the store's root; "" is the root itself.
struct StoreDirectory {
    std::vector<StoreFile> files;
    std::vector<std::string> directories;
};

// Opens the root or, level by level, a directory below it.
UniqueFd open_store_directory(const std::string &directory, Problem &problem);

// Lists one directory; nothing, with a problem, when that is not possible.
std::optional<StoreDirectory> list_directory(const std::string &directory, Problem &problem);

struct StoreListing {
    std::vector<StoreFile> files; // sorted by topic
    std::vector<std::string> directories;
    std::vector<Problem> problems;   // of directories that cannot be read
    std::vector<std::string> closed; // the names of those directories
};

// Lists what a selection covers. A store that does not exist has no topics.
StoreListing list_store(const Selection &selection);

// Says whether an entry is a regular file of a segment's size; else the problem names what it is.
bool is_segment_file(const struct stat &status, const std::string &topic, Problem &problem);

// What stands at a topic's place; a new topic fits only where nothing does.
enum class Place {
    free,
    topic,
    directory,     // other topics lie below it
    below_a_topic, // one of its levels is a topic itself
    unreachable,   // behind a link, or behind a directory without permission
};
Place place_of(const std::string &topic);

// Where a topic's file lies: an open directory and a name in it. All work on the file uses these
// two (openat, fstatat, unlinkat, linkat). The descriptor belongs to the TopicOpener and is valid
// until its next call.
struct TopicPlace {
    int directory;
    std::string name;
};

// Opens and removes topics one after another, and keeps the directory of the last one at hand.
class TopicOpener {
  public:
    // Closes the directory. To be called at the start of each round of work, since another
    // directory may have taken its name meanwhile.
    void start_round()
    {
        directory_fd_.reset();
    }

    // Nothing, with a problem, when the directory does not exist or may not be entered.
    std::optional<TopicPlace> locate(const std::string &topic, Problem &problem);
    // Does the same, but first makes the directories that are missing.
    std::optional<TopicPlace> make_place(const std::string &topic, Problem &problem);

    // A descriptor of the segment, or a problem: no such topic, no permission, not a segment.
    UniqueFd open(const std::string &topic, Problem &problem, int access = O_RDONLY);
    // Does the same for a file of any kind: the caller finds out what it is by reading it.
    UniqueFd open_any(const std::string &topic, Problem &problem, int access = O_RDONLY);
    // Why an open file is no segment.
    static Problem not_a_segment(const std::string &topic, const UniqueFd &fd);

    // The file's status without opening it; false with a problem.
    bool status(const std::string &topic, struct stat &status, Problem &problem);
    // Removes the file; false with a problem.
    bool remove(const std::string &topic, Problem &problem);
    // Removes the file only if it still is the one that the caller knows, which it looks at again
    // directly before.
    bool remove_same(const std::string &topic, const FileId &file, Problem &problem);

  private:
    enum class Missing { fail, make };

    std::optional<TopicPlace> find(const std::string &topic, Missing missing, Problem &problem);

    UniqueFd directory_fd_;
    std::string directory_;
};

} // namespace kp::tool
