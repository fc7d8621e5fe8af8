#include "options/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace kp::tool {

namespace {

// CLI11's own range lets NaN pass.
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

template <typename Value>
CLI::Option *add_option(CLI::App &parser, const OptionText &text, Value &value)
{
    return parser.add_option(text.names, value, text.description)->type_name(text.value_name);
}

} // namespace

Option &Option::required()
{
    option_->required();
    return *this;
}

Option &Option::excludes(const std::vector<Option> &others)
{
    for (const Option &other : others)
        option_->excludes(other.option_);
    return *this;
}

Option &Option::check(std::function<std::string(const std::string &)> problem_of)
{
    option_->check(CLI::Validator(std::move(problem_of), ""));
    return *this;
}

void Command::alias(const std::string &name)
{
    parser_->alias(name);
}

void Command::footer(const std::string &text)
{
    parser_->footer(text);
}

Command Command::add_command(const std::string &name, const std::string &summary)
{
    parser_->require_subcommand(1);
    return Command(*parser_->add_subcommand(name, summary));
}

Option Command::add_flag(const std::string &names, bool &value, const std::string &description)
{
    return Option(parser_->add_flag(names, value, description));
}

Option Command::on_flag(const std::string &names, std::function<void()> take,
                        const std::string &description)
{
    return Option(parser_->add_flag_callback(names, std::move(take), description));
}

Option Command::add_text(const OptionText &text, std::string &value)
{
    return Option(add_option(*parser_, text, value));
}

Option Command::add_text(const OptionText &text, std::optional<std::string> &value)
{
    return Option(add_option(*parser_, text, value));
}

Option Command::add_words(const OptionText &text, std::vector<std::string> &values)
{
    return Option(add_option(*parser_, text, values));
}

Option Command::add_repeatable(const OptionText &text, std::vector<std::string> &values)
{
    return Option(add_option(*parser_, text, values)->take_all()->allow_extra_args(false));
}

Option Command::add_number(const OptionText &text, double &value, double least, double most)
{
    return Option(add_option(*parser_, text, value)->check(in_range(least, most)));
}

Option Command::add_number(const OptionText &text, int &value, int least, int most)
{
    return Option(add_option(*parser_, text, value)->check(CLI::Range(least, most)));
}

Option Command::add_count(const OptionText &text, uint64_t &value)
{
    // CLI11 takes -1 for a huge count.
    return Option(add_option(*parser_, text, value)).check([](const std::string &typed) {
        const bool is_whole =
            !typed.empty() && typed.find_first_not_of("0123456789") == std::string::npos;
        return is_whole ? "" : typed + " is not a whole number";
    });
}

// CLI11's own way also takes the numbers of the places.
Option Command::add_word(const OptionText &text, std::vector<std::string> words,
                         std::function<void(std::size_t)> take)
{
    const auto problem_of = [words, text](const std::string &typed) {
        const bool is_known = std::ranges::find(words, typed) != words.end();
        return is_known ? "" : typed + " is not one of " + text.description;
    };
    const auto take_place = [words, take = std::move(take)](const std::string &typed) {
        const auto word = std::ranges::find(words, typed);
        take(static_cast<std::size_t>(word - words.begin()));
    };
    CLI::Option *option =
        parser_->add_option_function<std::string>(text.names, take_place, text.description);
    return Option(option->type_name(text.value_name)).check(problem_of);
}

Option Command::option(const std::string &name) const
{
    return Option(parser_->get_option(name));
}

} // namespace kp::tool
