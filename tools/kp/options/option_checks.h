// Checks of the values of options. CLI11's own range lets NaN pass, and takes -1 for a huge count.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kp::tool {

CLI::Validator in_range(double least, double most);

CLI::Validator whole_number();

// How an option that takes one of some words is called and explained.
struct ChoiceOption {
    std::string names;
    std::string description;
    std::string type_name;
};

// Takes one of the words and nothing else, and calls `take` with its place among them. CLI11's own
// way also takes the numbers of the places.
CLI::Option *add_word(CLI::App &app, const ChoiceOption &option, std::vector<std::string> words,
                      std::function<void(std::size_t)> take);

// Takes one of the words and stores the value that stands beside it.
template <typename Value>
CLI::Option *add_choice(CLI::App &app, const ChoiceOption &option, Value &value,
                        const std::vector<std::pair<std::string, Value>> &choices)
{
    std::vector<std::string> words;
    std::vector<Value> values;
    for (const auto &[word, chosen] : choices) {
        words.push_back(word);
        values.push_back(chosen);
    }
    return add_word(app, option, std::move(words),
                    [&value, values](std::size_t index) { value = values[index]; });
}

} // namespace kp::tool
