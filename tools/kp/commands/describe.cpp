// kp describe: what the dictionary says of topics, and where it says so.
#include "commands/commands.h"
#include "common/dictionary/fact_lines.h"
#include "common/store/store_files.h"
#include "common/text/text.h"
#include "looking/noted_listing.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <set>

namespace kp::tool {

namespace {

constexpr std::size_t kKeyColumns = 13;

struct DescribeOptions {
    SelectionOptions selection;
    bool json = false;
};

void print_plain(const std::string &topic, const std::vector<FactLine> &lines)
{
    output().line(colored(escaped(topic), Color::bold));
    if (lines.empty())
        output().line("  the dictionary says nothing of it");
    for (const FactLine &line : lines)
        output().line("  " + padded(line.key, kKeyColumns) + line.text +
                      colored("  [" + place_text(line.place) + "]", Color::dim));
}

// The topics that are asked for: those of the store, those that the dictionary names without a
// wildcard, and those that were given without one.
std::set<std::string> asked_topics(const Selection &selection, Outcome &outcome)
{
    std::set<std::string> topics(selection.topics().begin(), selection.topics().end());
    if (selection.has_only_topics())
        return topics;
    const StoreListing listing = list_store(selection, outcome);
    for (const StoreFile &file : listing.files)
        topics.insert(file.topic);
    dictionary().for_each_entry([&](const DictionaryEntry &entry) {
        if (const auto topic = topic_of(entry); topic && selection.covers(*topic))
            topics.insert(*topic);
    });
    return topics;
}

int run_describe(const DescribeOptions &options, const Selection &selection)
{
    Outcome outcome;
    bool is_known = false;
    for (const std::string &topic : asked_topics(selection, outcome)) {
        const Facts facts = dictionary().facts_of(topic);
        is_known |= facts.is_known;
        if (options.json)
            output().write(json_line({{"topic", topic}, {"facts", facts_json(facts)}}));
        else
            print_plain(topic, fact_lines(facts));
    }
    if (!is_known)
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_describe(Commands &commands)
{
    const auto options = std::make_shared<DescribeOptions>();
    Command command = commands.add("describe", "what the dictionary says of topics, and where",
                                   on_selection(options, run_describe));
    add_selection(command, options->selection);
    command.add_flag("-j,--json", options->json, "one JSON object a topic");
}

} // namespace kp::tool
