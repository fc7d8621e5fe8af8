// kp dictionary init: a dictionary to begin with, from the topics that exist.
#include "commands/commands.h"
#include "common/text/text.h"
#include "layout/value_type.h"
#include "looking/declared_topics.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"

#include <array>
#include <cstdio>
#include <memory>

namespace kp::tool {

namespace {

struct InitOptions {
    SelectionOptions selection;
    bool only_unknown = false;
};

// A text between the quotation marks of TOML, with nothing in it that would reach a terminal.
// Nothing for what is not UTF-8, which TOML cannot hold.
std::optional<std::string> toml_text(std::string_view text)
{
    std::string out = "\"";
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        std::array<char, 16> code{};
        if (!point.valid)
            return std::nullopt;
        if (is_unsafe_to_show(point.value))
            (void)std::snprintf(code.data(), code.size(),
                                point.value > 0xFFFF ? "\\U%08X" : "\\u%04X",
                                static_cast<unsigned>(point.value));
        const bool is_special = text[0] == '"' || text[0] == '\\';
        out += code[0] ? std::string(code.data())
                       : (is_special ? "\\" : "") + std::string(text.substr(0, point.bytes));
        text.remove_prefix(point.bytes);
    }
    return out + '"';
}

void print_entry(const std::string &name, const Snapshot &snapshot)
{
    output().line("[" + name + "]");
    output().line("type = \"" + std::string(snapshot.type_name()) + "\"");
    if (has_variable_size(snapshot.type) && snapshot.max != 0)
        output().line("size = " + std::to_string(snapshot.max));
    if (!has_variable_size(snapshot.type))
        output().line("unit = \"\"");
    output().line("description = \"\"");
}

int run_init(const InitOptions &options, const Selection &selection)
{
    Outcome outcome;
    bool is_first = true;
    for_each_declared(selection, outcome, [&](const std::string &topic, const Snapshot &snapshot) {
        if (options.only_unknown && dictionary().facts_of(topic).is_known)
            return;
        const auto name = is_pattern(topic) ? std::nullopt : toml_text(topic);
        if (!name) {
            outcome.note(
                Problem{kInvalid, escaped(topic) + ": such a name cannot stand in a dictionary"});
            return;
        }
        if (!std::exchange(is_first, false))
            output().line("");
        print_entry(*name, snapshot);
    });
    if (is_first)
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_dictionary(Commands &commands)
{
    const auto options = std::make_shared<InitOptions>();
    Command command =
        commands.add("dictionary", "begin a dictionary", on_selection(options, run_init));
    Command init =
        command.add_command("init", "print a dictionary to begin with, from the topics that exist");
    add_selection(init, options->selection);
    init.add_flag("--unknown", options->only_unknown,
                  "only the topics of which the dictionary says nothing yet");
}

} // namespace kp::tool
