// Checks of the values of options. CLI11's own range lets NaN pass, and takes -1 for a huge count.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
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

// How an option that takes one of some words is called and explained.
struct ChoiceOption {
    std::string names;
    std::string description;
    std::string type_name;
};

// Takes one of the words and nothing else; CLI11's own way also takes the numbers behind them.
template <typename Value>
CLI::Option *add_choice(CLI::App &app, const ChoiceOption &option, Value &value,
                        const std::vector<std::pair<std::string, Value>> &choices)
{
    const auto check = [choices, option](std::string &text) {
        const bool is_known =
            std::ranges::find(choices, text, &std::pair<std::string, Value>::first) !=
            choices.end();
        return is_known ? "" : text + " is not one of " + option.description;
    };
    return app
        .add_option_function<std::string>(
            option.names,
            [&value, choices](const std::string &text) {
                value =
                    std::ranges::find(choices, text, &std::pair<std::string, Value>::first)->second;
            },
            option.description)
        ->check(CLI::Validator(check, ""))
        ->type_name(option.type_name);
}

} // namespace kp::tool
