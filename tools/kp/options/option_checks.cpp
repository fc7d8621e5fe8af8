#include "options/option_checks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kp::tool {

CLI::Validator in_range(double least, double most)
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

CLI::Validator whole_number()
{
    return CLI::Validator(
        [](std::string &text) {
            const bool is_whole =
                !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
            return is_whole ? "" : text + " is not a whole number";
        },
        "");
}

CLI::Option *add_word(CLI::App &app, const ChoiceOption &option, std::vector<std::string> words,
                      std::function<void(std::size_t)> take)
{
    const auto check = [words, option](std::string &text) {
        const bool is_known = std::ranges::find(words, text) != words.end();
        return is_known ? "" : text + " is not one of " + option.description;
    };
    return app
        .add_option_function<std::string>(
            option.names,
            [words, take = std::move(take)](const std::string &text) {
                const auto word = std::ranges::find(words, text);
                take(static_cast<std::size_t>(word - words.begin()));
            },
            option.description)
        ->check(CLI::Validator(check, ""))
        ->type_name(option.type_name);
}

} // namespace kp::tool
