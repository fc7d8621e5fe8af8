// Reads numbers from texts.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace kp::tool {

// Gives the number that a whole text is, without a plus sign or blanks; nothing when a part of the
// text is no part of the number, or when the type cannot hold it.
template <typename T> std::optional<T> parse_number(std::string_view text)
{
    T number{};
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

} // namespace kp::tool
