// What a command takes: its options, flags and arguments. CLI11 parses them; whoever includes its
// header compiles it for seconds, so that commands see this only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace kp::tool {

// How an option ("-t,--timeout") or an argument ("topic") and its value are called and explained.
struct OptionText {
    std::string names;
    std::string description;
    std::string value_name;
};

// An option, a flag or an argument of a command. Valid as long as the command's parser.
class Option {
  public:
    explicit Option(CLI::Option *option) : option_(option)
    {
    }

    Option &required();
    Option &excludes(const std::vector<Option> &others);

    // Refuses what `problem_of` has a text for.
    Option &check(std::function<std::string(const std::string &)> problem_of);

  private:
    CLI::Option *option_;
};

// A command's parser, which lives in the program's. Values are stored when all was parsed, in
// variables that live as long.
class Command {
  public:
    explicit Command(CLI::App &parser) : parser_(&parser)
    {
    }

    void alias(const std::string &name);
    void footer(const std::string &text);

    // A command below this one, which then wants one of them.
    Command add_command(const std::string &name, const std::string &summary);

    Option add_flag(const std::string &names, bool &value, const std::string &description);
    Option on_flag(const std::string &names, std::function<void()> take,
                   const std::string &description);

    Option add_text(const OptionText &text, std::string &value);
    Option add_text(const OptionText &text, std::optional<std::string> &value);

    // All words that are no option's.
    Option add_words(const OptionText &text, std::vector<std::string> &values);

    // May be given several times, with one value each.
    Option add_repeatable(const OptionText &text, std::vector<std::string> &values);

    // A number from `least` to `most`. NaN is none.
    Option add_number(const OptionText &text, double &value, double least, double most);
    Option add_number(const OptionText &text, int &value, int least, int most);

    // A number without a sign.
    Option add_count(const OptionText &text, uint64_t &value);

    // Takes one of the words and nothing else, and calls `take` with its place among them.
    Option add_word(const OptionText &text, std::vector<std::string> words,
                    std::function<void(std::size_t)> take);

    // Takes one of the words and stores the value that stands beside it.
    template <typename Value>
    Option add_choice(const OptionText &text, Value &value,
                      const std::vector<std::pair<std::string, Value>> &choices)
    {
        std::vector<std::string> words;
        std::vector<Value> values;
        for (const auto &[word, chosen] : choices) {
            words.push_back(word);
            values.push_back(chosen);
        }
        return add_word(text, std::move(words),
                        [&value, values](std::size_t index) { value = values[index]; });
    }

    // One that was added before. `name` has its dashes.
    Option option(const std::string &name) const;

  private:
    CLI::App *parser_;
};

} // namespace kp::tool
