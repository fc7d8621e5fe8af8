// kp: the tags of this device, seen, set and looked after from a shell.
#include "commands.h"
#include "common/fault_guard.h"
#include "common/text.h"
#include "kp.h"
#include "output.h"
#include "stop.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>

namespace {

using namespace kp::tool;

constexpr const char *kFooter =
    "Patterns: + stands for any one level, # for one or more remaining levels. Quote them. Unlike "
    "in\n"
    "MQTT, a/# does not match a itself.\n"
    "Exit codes: 0 done, 1 nothing matched or condition false, 2 usage, 3 permission, 4 invalid "
    "or\n"
    "corrupt segment, 5 a limit or peer trouble, 124 timeout, 128+n signal.\n"
    "See kp(1), or kp help COMMAND.";

struct GlobalOptions {
    bool debug = false;
    ColorChoice color = ColorChoice::automatic;
};

void add_global_options(CLI::App &app, GlobalOptions &options)
{
    app.add_flag("-d,--debug", options.debug, "print the library's own messages on standard error");
    app.add_option("--color", options.color, "auto, always or never")
        ->transform(CLI::CheckedTransformer(
                        std::map<std::string, ColorChoice>{{"auto", ColorChoice::automatic},
                                                           {"always", ColorChoice::always},
                                                           {"never", ColorChoice::never}})
                        .description(""))
        ->type_name("WHEN");
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

// Negative numbers that the parser takes for options: -inf, -nan, -.5.
bool is_odd_negative(const std::string &text)
{
    if (text.size() < 2 || text[0] != '-' || (text[1] >= '0' && text[1] <= '9'))
        return false;
    char *end = nullptr;
    (void)std::strtod(text.c_str(), &end);
    return *end == '\0';
}

// They are put where the parser takes them for a value: with set, whose last word the value is, behind
// the end of the options, and with wait behind the sign.
void protect_negative_value(std::vector<std::string> &arguments)
{
    const bool is_wait = arguments[0] == "wait";
    if (!is_wait && arguments[0] != "set" && arguments[0] != "put")
        return;
    const auto odd = std::find_if(arguments.begin(), arguments.end(), is_odd_negative);
    if (odd == arguments.end() ||
        std::find(arguments.begin(), arguments.end(), "--") != arguments.end())
        return;
    const std::string value = *odd;
    if (is_wait)
        *std::prev(odd) += value;
    arguments.erase(odd);
    if (!is_wait)
        arguments.insert(arguments.end(), {"--", value});
}

// `kp help` and `kp help COMMAND` are `kp --help` and `kp COMMAND --help`.
std::vector<std::string> arguments_of(int argc, char **argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "help") {
        arguments.erase(arguments.begin());
        arguments.emplace_back("--help");
    } else if (!arguments.empty()) {
        protect_negative_value(arguments);
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

// `kp help` of what is no command, which would pass for `kp --help`.
bool asks_for_unknown_help(const CLI::App &app, int argc, char **argv)
{
    const bool asks = argc > 2 && std::string_view(argv[1]) == "help" && argv[2][0] != '-';
    const auto is_meant = [argv](const CLI::App *command) { return command->check_name(argv[2]); };
    return asks && app.get_subcommands(is_meant).empty();
}

int report_parse_end(const CLI::App &app, const CLI::ParseError &end)
{
    std::ostringstream text;
    const bool is_usage = app.exit(end, text, std::cerr) != 0;
    output().write(text.str());
    (void)output().flush();
    return is_usage ? kUsage : output().code();
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
    (void)std::setlocale(LC_CTYPE, "");
    (void)std::signal(SIGPIPE, SIG_IGN); // a closed output shows as an error, and ends quietly
    catch_bus_errors();

    CLI::App app("Shows, sets and looks after the tags of this device.", "kp");
    GlobalOptions options;
    add_global_options(app, options);
    Commands commands(app);
    add_commands(commands);
    if (asks_for_unknown_help(app, argc, argv))
        return complain(Problem{kUsage, "no such command: " + escaped(argv[2])});
    try {
        auto arguments = arguments_of(argc, argv);
        if (is_for(app, arguments, "sandbox"))
            commands.set_words_behind_mark(cut_behind_mark(arguments));
        std::reverse(arguments.begin(), arguments.end()); // the order that the parser wants
        app.parse(arguments);
    } catch (const CLI::ParseError &end) {
        return report_parse_end(app, end);
    }
    choose_colors(options.color);
    set_library_level(options.debug);
    const int code = commands.run();
    (void)output().flush();
    die_of_stop_signal();
    return end_code(code);
}
