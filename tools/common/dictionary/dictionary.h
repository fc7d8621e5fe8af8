// The dictionary: what a device's tags mean, said once for all tools in files of a directory. The
// library neither reads nor enforces it. kp-tags(5) describes the files.
//
// For each fact of a topic the most exact pattern wins that says anything about it. Of two patterns
// that cover a topic the more exact one is found by comparing them level by level from the left:
// where they differ first, a name tells more than "+", and "+" more than "#". Of equal patterns in
// two files the file whose name sorts later wins.
#pragma once

#include "common/dictionary/entry.h"

#include <functional>
#include <memory>
#include <vector>

namespace kp::tool {

// The one topic that an entry speaks of; nothing for a pattern, and for what can be no topic.
std::optional<std::string> topic_of(const DictionaryEntry &entry);

// Immutable once it is made, so any thread may look things up.
class Dictionary {
  public:
    Dictionary();
    // A later file of the list wins over an earlier one.
    explicit Dictionary(std::vector<std::shared_ptr<const DictionaryFile>> files);
    Dictionary(const Dictionary &) = delete;
    Dictionary &operator=(const Dictionary &) = delete;
    ~Dictionary();

    // Says whether there is no entry at all, which is how a device without a dictionary looks.
    bool is_empty() const;

    // Gives what is known of a topic. The facts are valid as long as the dictionary.
    Facts facts_of(std::string_view topic) const;

    // Calls `visit` with each entry of each file, in the order of the files.
    void for_each_entry(const std::function<void(const DictionaryEntry &)> &visit) const;

  private:
    struct Node;

    std::vector<std::shared_ptr<const DictionaryFile>> files_;
    std::unique_ptr<Node> root_;
};

} // namespace kp::tool
