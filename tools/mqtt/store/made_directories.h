// Remembers which directories of the store the bridge has made for its tags, and removes them when
// they are empty. Otherwise somebody who may publish could fill the store with directories.
#pragma once

#include <set>
#include <string>

namespace kp::mqtt {

class MadeDirectories {
  public:
    // Notes which directories of a tag do not exist yet. Call it before the tag is made.
    void note(const std::string &tag);

    // Removes those of the tag's directories that were noted and are empty. Call it after the tag
    // is gone. One that has just got a file of somebody else is not empty and stays.
    void remove_of(const std::string &tag);

    void remove_all();

  private:
    bool remove(const std::string &directory);

    std::set<std::string> made_;
};

} // namespace kp::mqtt
