// One entry of a dictionary's file: a pattern, and what it says of the topics that it covers.
#pragma once

#include "common/dictionary/facts.h"

#include <string>
#include <vector>

namespace kp::tool {

struct DictionaryEntry {
    std::string pattern;
    FilePlace place;
    std::optional<Fact<uint32_t>> type;
    std::optional<Fact<uint32_t>> size;
    std::optional<Fact<std::string>> unit;
    std::optional<Fact<std::string>> description;
    std::optional<Fact<ValueRange>> range;
    std::optional<Fact<ValueLimits>> limits;
    std::optional<Fact<double>> stale_s;
    std::optional<Fact<Recording>> record;
    std::optional<Fact<ValueNames>> names;
};

// What is wrong at one place of a file. The entry, or only the one fact in it, is left out; the
// rest of the file counts.
struct DictionaryProblem {
    FilePlace place;
    std::string text; // whole words, safe to show
};

// What one file says.
struct DictionaryFile {
    std::vector<DictionaryEntry> entries;    // in the order of their patterns
    std::vector<DictionaryProblem> problems; // in the order of the file
};

// Reads a file's text. Messages call the file `name`.
DictionaryFile parse_dictionary_file(std::string_view text, const std::string &name);

} // namespace kp::tool
