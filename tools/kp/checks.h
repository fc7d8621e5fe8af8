// What the numbers of options must be. CLI11's own range lets NaN pass, and takes -1 for a huge count.
#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>

namespace kp::tool {

inline CLI::Validator in_range(double least, double most)
{
    const CLI::Range range(least, most);
    return CLI::Validator(
        [range](std::string &text) {
            char *end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            return std::isnan(value) && end != text.c_str() ? text + " is not a number in the range"
                                                            : range(text);
        },
        "");
}

inline CLI::Validator whole_number()
{
    return CLI::Validator(
        [](std::string &text) {
            const bool is_whole =
                !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
            return is_whole ? "" : text + " is not a whole number";
        },
        "");
}

} // namespace kp::tool
