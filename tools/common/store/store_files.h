// The topics' files: opens and removes them, and tells what they are. Everything below the store's
// root is reached level by level through descriptors, and no link there is followed.
#pragma once

#include "common/names/topic_name.h"
#include "common/system/file_id.h"
#include "layout/unique_fd.h"

#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace kp::tool {

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
