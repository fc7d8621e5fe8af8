// The secret that a client shows to be allowed to write.
#pragma once

#include "common/result.h"

#include <array>
#include <string>
#include <string_view>

namespace kp::web {

class Token {
  public:
    static constexpr std::size_t kLeastBytes = 16; // fewer could be guessed
    static constexpr std::size_t kMostBytes = 256;

    // Reads the only line of a file that nobody may read but its owner and its group.
    static tool::Result<Token> read(const std::string &path);

    // Says whether they are the same. It takes the same time whatever the two have in common, so
    // that nobody finds a token letter by letter.
    bool is(std::string_view text) const;

  private:
    explicit Token(std::string_view text);

    std::array<char, kMostBytes> bytes_{}; // zero behind the token
    std::size_t size_ = 0;
};

} // namespace kp::web
