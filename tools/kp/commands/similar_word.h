// What a user probably meant by a word that does not exist.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kp::tool {

// The known word that one or two slips of typing turn into `word` (a letter left out, added, changed or
// swapped with its neighbour); nothing when none is as near.
std::optional<std::string> similar_word(const std::string &word,
                                        const std::vector<std::string> &known);

} // namespace kp::tool
