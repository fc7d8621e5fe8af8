// The completions of the three shells repeat kp's own words; these tests hold them to kp.
#include "kp_run.h"

#include "testing/file_text.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <sstream>

using namespace kptest;

namespace {

using Words = std::vector<std::string>;

// Says where a list of words stands in a text: behind `before`, up to `end`.
struct Place {
    std::string before;
    std::string end;
};

struct Completion {
    std::string shell; // the ending of the file's name
    Place commands;
    Place types;
    Place formats;
    Place colors;

    friend std::ostream &operator<<(std::ostream &out, const Completion &completion)
    {
        return out << completion.shell;
    }
};

std::string text_at(const std::string &text, const Place &place)
{
    const std::size_t before = text.find(place.before);
    if (before == std::string::npos)
        return "nothing stands behind " + place.before;
    const std::size_t start = before + place.before.size();
    return text.substr(start, text.find(place.end, start) - start);
}

// Gives the words of a list, whatever separates them, without the `or` before the last.
Words words_at(const std::string &text, const Place &place)
{
    std::string list = text_at(text, place);
    std::replace(list.begin(), list.end(), ',', ' ');
    std::istringstream stream(list);
    Words words;
    for (std::string word; stream >> word;)
        if (word != "or")
            words.push_back(word);
    return words;
}

std::string text_of(const Completion &completion)
{
    const auto path = std::filesystem::path(KP_COMPLETION).replace_extension(completion.shell);
    return file_text(path);
}

// Gives the first name of each command, and `help`, which is no command to the parser.
Words kp_commands()
{
    std::istringstream lines(text_at(kp({"help"}).out, {"Subcommands:\n", "\n\n"}));
    Words names;
    for (std::string line; std::getline(lines, line);)
        names.push_back(line.substr(2, line.find_first_of(", ", 2) - 2));
    names.emplace_back("help");
    return names;
}

Words kp_types()
{
    Words names;
    for (uint32_t type = 0; kp_type2str(type); ++type)
        names.emplace_back(kp_type2str(type));
    return names;
}

class ShellCompletion : public testing::TestWithParam<Completion> {};

} // namespace

TEST_P(ShellCompletion, NamesTheCommandsOfKp)
{
    EXPECT_EQ(words_at(text_of(GetParam()), GetParam().commands), kp_commands());
}

TEST_P(ShellCompletion, NamesTheValueTypes)
{
    EXPECT_EQ(words_at(text_of(GetParam()), GetParam().types), kp_types());
}

TEST_P(ShellCompletion, NamesTheFormatsOfKp)
{
    const std::string refusal = kp({"list", "--format", "xml"}).err;

    EXPECT_EQ(words_at(text_of(GetParam()), GetParam().formats),
              words_at(refusal, {"is not one of ", " ("}));
}

TEST_P(ShellCompletion, NamesTheChoicesOfColor)
{
    const std::string refusal = kp({"--color", "xml", "list"}).err;

    EXPECT_EQ(words_at(text_of(GetParam()), GetParam().colors),
              words_at(refusal, {"is not one of ", " ("}));
}

INSTANTIATE_TEST_SUITE_P(
    Of, ShellCompletion,
    testing::Values(Completion{"bash",
                               {"local commands='", "'"},
                               {"--type)\n        mapfile -t COMPREPLY < <(compgen -W '", "'"},
                               {"--format)\n        mapfile -t COMPREPLY < <(compgen -W '", "'"},
                               {"--color)\n        mapfile -t COMPREPLY < <(compgen -W '", "'"}},
                    Completion{"fish",
                               {"set -l commands ", "\n"},
                               {"-l type -x -a '", "'"},
                               {"-l format -x -a '", "'"},
                               {"-l color -x -a '", "'"}},
                    Completion{"zsh",
                               {"commands=(", ")"},
                               {"--type) compadd ", " &&"},
                               {"--format) compadd ", " &&"},
                               {"--color) compadd ", " &&"}}),
    [](const auto &completion) { return completion.param.shell; });
