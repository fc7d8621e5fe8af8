// Reads one entry of the dictionary from its TOML table, and says what is wrong in it and where.
#pragma once

#include "common/config/toml.h"
#include "common/dictionary/entry.h"
#include "common/result.h"

namespace kp::tool {

// The text of a mistake, which is cut if the file would make it very long.
std::string problem_text(const std::string &text);

class EntryReader {
  public:
    // Messages call the file `file`. The list must outlive the reader.
    EntryReader(std::shared_ptr<const std::string> file, std::vector<DictionaryProblem> &problems)
        : file_(std::move(file)), problems_(problems)
    {
    }

    DictionaryEntry read(const toml::key &pattern, const toml::table &table);

    void problem(const toml::source_region &at, const std::string &text);
    FilePlace place(const toml::source_region &at) const;

  private:
    // Stores what `parse` makes of a node as a fact, or its problem.
    template <typename T, typename Parse>
    void take(std::optional<Fact<T>> &fact, const toml::key &key, const toml::node &node,
              Parse parse)
    {
        Result<T> parsed = parse(node);
        if (parsed)
            fact = Fact<T>{std::move(*parsed.value), place(key.source()), is_pattern_};
        else
            problem(node.source(), std::string(key.str()) + ": " + parsed.problem);
    }
    void read_key(DictionaryEntry &entry, const toml::key &key, const toml::node &node);
    void check(DictionaryEntry &entry);

    const std::shared_ptr<const std::string> file_;
    std::vector<DictionaryProblem> &problems_;
    bool is_pattern_ = false; // the entry that is read
};

} // namespace kp::tool
