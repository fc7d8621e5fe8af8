// What a user probably meant by a word that does not exist.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kp::tool {

// Gives the known word that becomes `word` by one or two typing mistakes: a letter left out, added,
// changed or swapped with its neighbour. Gives nothing if no known word is so near.
std::optional<std::string> similar_word(const std::string &word,
                                        const std::vector<std::string> &known);

} // namespace kp::tool
