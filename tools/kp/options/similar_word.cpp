#include "options/similar_word.h"

#include <algorithm>

namespace kp::tool {

namespace {

constexpr std::size_t kMostSlips = 2;
constexpr std::size_t kLongestWord = 32;

// The slips between two words: the distance of Damerau and Levenshtein.
std::size_t slips(const std::string &a, const std::string &b)
{
    std::vector<std::vector<std::size_t>> cost(a.size() + 1,
                                               std::vector<std::size_t>(b.size() + 1));
    for (std::size_t row = 0; row <= a.size(); ++row) {
        for (std::size_t column = 0; column <= b.size(); ++column) {
            if (row == 0 || column == 0) {
                cost[row][column] = row + column;
                continue;
            }
            const bool is_same = a[row - 1] == b[column - 1];
            cost[row][column] = std::min({cost[row - 1][column] + 1, cost[row][column - 1] + 1,
                                          cost[row - 1][column - 1] + (is_same ? 0 : 1)});
            const bool is_swapped =
                row > 1 && column > 1 && a[row - 1] == b[column - 2] && a[row - 2] == b[column - 1];
            if (is_swapped)
                cost[row][column] = std::min(cost[row][column], cost[row - 2][column - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

} // namespace

std::optional<std::string> similar_word(const std::string &word,
                                        const std::vector<std::string> &known)
{
    if (word.size() > kLongestWord)
        return std::nullopt;
    const auto nearest = std::ranges::min_element(
        known, {}, [&word](const std::string &other) { return slips(word, other); });
    // In a short word two mistakes change everything, so only one is allowed.
    const std::size_t most = std::min(kMostSlips, word.size() / 2);
    if (nearest == known.end() || slips(word, *nearest) > most)
        return std::nullopt;
    return *nearest;
}

} // namespace kp::tool
