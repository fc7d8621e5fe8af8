// kp: the tags of this device, seen, set and looked after from a shell.
#include "commands/commands.h"
#include "common/store/fault_guard.h"
#include "common/text/text.h"
#include "kp.h"
#include "options/command.h"
#include "options/similar_word.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "running/stop.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

namespace {

using namespace kp::tool;

constexpr const char *kFooter =
    "Patterns (quote them; unlike in MQTT, a/# does not match a itself):\n"
    "  +  any one level\n"
    "  #  one or more remaining levels\n"
    "\n"
    "Exit codes:\n"
    "  0  done                     3  no permission                 124    timeout\n"
    "  1  no match, or not true    4  invalid or corrupt segment    128+n  signal n\n"
    "  2  usage                    5  a limit, or a peer does not answer\n"
    "\n"
    "See kp(1), or kp help COMMAND.";

struct GlobalOptions {
    bool debug = false;
    ColorChoice color = ColorChoice::automatic;
    std::string dictionary;
};

void add_global_options(CLI::App &app, GlobalOptions &options)
{
    app.add_flag("-d,--debug", options.debug, "print the library's own messages on standard error");
    Command(app).add_choice<ColorChoice>({"--color", "auto, always or never", "WHEN"},
                                         options.color,
                                         {{"auto", ColorChoice::automatic},
                                          {"always", ColorChoice::always},
                                          {"never", ColorChoice::never}});
    app.add_option("--dictionary", options.dictionary,
                   "what tags mean; KP_DICTIONARY or /etc/zu-kp/tags.d unless given (kp-tags(5))")
        ->type_name("DIR");
    app.set_version_flag("--version", "kp " KP_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
}

void add_commands(Commands &commands)
{
    add_list(commands);
    add_get(commands);
    add_set(commands);
    add_info(commands);
    add_describe(commands);
    add_check(commands);
    add_dictionary(commands);
    add_watch(commands);
    add_wait(commands);
    add_hz(commands);
    add_top(commands);
    add_dump(commands);
    add_restore(commands);
    add_record(commands);
    add_replay(commands);
    add_export(commands);
    add_rm(commands);
    add_peers(commands);
    add_doctor(commands);
    add_gc(commands);
    add_bench(commands);
    add_sandbox(commands);
}

// The word in the place of the command, which is none if it stands behind `help`; nothing when
// there is no such word.
std::optional<std::string> command_word(const std::vector<std::string> &arguments)
{
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string &word = arguments[index];
        if (word == "--color" || word == "--dictionary")
            ++index; // its value
        else if (!word.empty() && word[0] != '-' && !(word == "help" && index == 0))
            return word;
    }
    return std::nullopt;
}

// Negative numbers that the parser takes for options: -inf, -nan, -.5.
bool is_odd_negative(const std::string &text)
{
    if (text.size() < 2 || text[0] != '-' || (text[1] >= '0' && text[1] <= '9'))
        return false;
    char *end = nullptr;
    (void)std::strtod(text.c_str(), &end);
    return *end == '\0';
}

// The parser reads more into some words than they say: a list in brackets is taken apart, "++"
// ends the command, and numbers such as -inf look like options. They get this mark in front, which
// each option takes off again.
constexpr char kAsItIs = '\x01';

bool is_misread(const std::string &word, bool may_be_number)
{
    return word == "++" || word.starts_with(kAsItIs) ||
           (word.starts_with('[') && word.ends_with(']')) ||
           (may_be_number && is_odd_negative(word));
}

// Where the value of an option that stands in the same word begins, as in "--exclude=a" and "-xa";
// 0 for other words.
std::size_t begin_of_value(const std::string &word)
{
    if (word.starts_with("--"))
        return word.find('=') + 1; // npos + 1 is 0
    return word.starts_with('-') && word.size() > 2 ? 2 : 0;
}

void mark_misread(std::vector<std::string> &arguments)
{
    const auto command = command_word(arguments);
    const bool may_be_number =
        command && (*command == "set" || *command == "put" || *command == "wait");
    for (std::string &word : arguments) {
        const std::size_t begin = begin_of_value(word);
        if (is_misread(word, may_be_number))
            word.insert(word.begin(), kAsItIs);
        else if (begin > 0 && is_misread(word.substr(begin), false))
            word.insert(begin, 1, kAsItIs);
    }
}

void take_marks_off(CLI::App &app)
{
    const auto unmarked = [](std::string &word) {
        if (word.starts_with(kAsItIs))
            word.erase(0, 1);
        return std::string();
    };
    for (CLI::Option *option : app.get_options())
        option->transform(CLI::Validator(unmarked, ""));
    for (CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        take_marks_off(*command);
}

// `kp help` and `kp help COMMAND` are `kp --help` and `kp COMMAND --help`.
std::vector<std::string> arguments_of(int argc, char **argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "help") {
        arguments.erase(arguments.begin());
        arguments.emplace_back("--help");
    }
    return arguments;
}

// Says whether these arguments are for the command `name`: the first that names a command counts.
bool is_for(const CLI::App &app, const std::vector<std::string> &arguments, const char *name)
{
    const auto is_command = [&app](const std::string &argument) {
        const auto is_meant = [&](const CLI::App *command) {
            return command->check_name(argument);
        };
        return !app.get_subcommands(is_meant).empty();
    };
    const auto found = std::find_if(arguments.begin(), arguments.end(), is_command);
    return found != arguments.end() && *found == name;
}

// Cuts off what stands behind the first `--`, together with it.
std::vector<std::string> cut_behind_mark(std::vector<std::string> &arguments)
{
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    if (mark == arguments.end())
        return {};
    std::vector<std::string> words(std::next(mark), arguments.end());
    arguments.erase(mark, arguments.end());
    return words;
}

// The problem with a command that does not exist, with the one that was probably meant.
std::optional<Problem> unknown_command(const CLI::App &app,
                                       const std::vector<std::string> &arguments)
{
    const auto word = command_word(arguments);
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        if (!word || command->check_name(*word))
            return std::nullopt;
        names.push_back(command->get_name());
        for (const std::string &alias : command->get_aliases())
            names.push_back(alias);
    }
    const auto meant = similar_word(*word, names);
    return Problem{kUsage, "unknown command " + escaped(*word) +
                               (meant ? ", did you mean " + *meant + "?" : " (see kp help)")};
}

int report_parse_end(const CLI::App &app, const CLI::ParseError &end)
{
    if (end.get_exit_code() != 0) { // its text has what the user typed in it
        std::string typed = end.what();
        std::erase(typed, kAsItIs);
        return complain(Problem{kUsage, escaped(typed) + " (--help tells more)"});
    }
    std::ostringstream text;
    (void)app.exit(end, text, text);
    output().write(text.str());
    (void)output().flush();
    return output().code();
}

// Descriptors 0 to 2 that were closed would be given to the next files that are opened, and what is
// printed would go there. Opened so that using them fails, as it does while they are closed.
void occupy_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0)
            (void)!open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

// The library reports on standard error in its own colours; the tool prints its own messages.
void set_library_level(bool debug)
{
    (void)unsetenv("KP_XLOG_USER_LEVEL"); // opening a handle would set it again
    kp_xlog_set_user_level(debug ? KP_LEVEL_ALL : KP_LEVEL_OFF);
}

} // namespace

int main(int argc, char **argv)
{
    occupy_standard_descriptors();
    (void)std::setlocale(LC_CTYPE, "");
    escape_for_8_bits(!locale_is_utf8() && (isatty(STDOUT_FILENO) || isatty(STDERR_FILENO)));
    (void)std::signal(SIGPIPE, SIG_IGN); // a closed output shows as an error, and ends quietly
    (void)std::signal(SIGXFSZ, SIG_IGN); // so does a file that may not grow
    catch_bus_errors();

    CLI::App app("Shows, sets and looks after the tags of this device.", "kp");
    GlobalOptions options;
    add_global_options(app, options);
    Commands commands(app);
    add_commands(commands);
    take_marks_off(app);
    if (const auto problem = unknown_command(app, {argv + 1, argv + argc}))
        return complain(*problem);
    try {
        auto arguments = arguments_of(argc, argv);
        if (is_for(app, arguments, "sandbox"))
            commands.set_words_behind_mark(cut_behind_mark(arguments));
        mark_misread(arguments);
        std::reverse(arguments.begin(), arguments.end()); // the order that the parser wants
        app.parse(arguments);
    } catch (const CLI::ParseError &end) {
        return report_parse_end(app, end);
    }
    choose_colors(options.color);
    choose_dictionary(options.dictionary);
    set_library_level(options.debug);
    const int code = commands.run();
    (void)output().flush();
    die_of_stop_signal();
    return end_code(code);
}
