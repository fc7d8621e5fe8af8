// The dictionary of tags for a program that acts on what it no longer says. A file that is just
// being saved may be empty for a moment, so a change counts when the next look finds no other.
#pragma once

#include "common/dictionary/live_dictionary.h"

namespace kp::mqtt {

class SettledDictionary {
  public:
    // Reads the files; these count at once.
    explicit SettledDictionary(tool::DictionaryPlace place);

    // Looks at the files, and logs their mistakes. Says whether there is another dictionary.
    bool look();
    // The same for somebody who says that all is saved: a change counts at once.
    bool look_now();

    const std::shared_ptr<const tool::Dictionary> &current() const
    {
        return live_.current();
    }
    // See LiveDictionary::is_whole().
    bool is_whole() const
    {
        return live_.is_whole();
    }

  private:
    void log_mistakes();

    tool::LiveDictionary live_;
    bool has_changed_ = false; // at the last look, which has not been told
};

} // namespace kp::mqtt
