// Bounded formatting of paths and names.
#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace kp {

constexpr std::size_t kPathSize = 4096;

using PathBuffer = std::array<char, kPathSize>;

// Formats into `out`, always terminated. Says whether the text fitted; one that did not is cut.
__attribute__((format(printf, 2, 3))) bool format_text(std::span<char> out, const char *format,
                                                       ...);

} // namespace kp
