// kp get: values, once.
#include "commands/commands.h"
#include "looking/noted_listing.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/row_format.h"
#include "running/stop.h"

#include <algorithm>
#include <memory>

namespace kp::tool {

namespace {

constexpr uint64_t kPollUs = 10'000;

struct GetOptions {
    SelectionOptions selection;
    FormatOptions format;
    double timeout = 0;
};

// Named topics as they were given, existing or not; with a pattern among them, all that is covered,
// sorted.
std::vector<std::string> wanted_topics(const Selection &selection, Outcome &outcome)
{
    if (selection.has_only_topics())
        return selection.topics();
    const StoreListing listing = list_store(selection, outcome);
    std::vector<std::string> topics;
    for (const StoreFile &file : listing.files)
        topics.push_back(file.topic);
    for (const std::string &topic : selection.topics())
        if (selection.covers(topic))
            topics.push_back(topic);
    std::sort(topics.begin(), topics.end());
    topics.erase(std::unique(topics.begin(), topics.end()), topics.end());
    return topics;
}

struct Found {
    std::vector<Row> rows;
    std::vector<Problem> problems;
};

Found read_values(const std::vector<std::string> &topics, const Selection &selection)
{
    Found found;
    TopicOpener opener;
    const auto &named = selection.topics();
    for (const std::string &topic : topics) {
        Problem problem;
        auto snapshot = read_topic(opener, topic, problem);
        const bool is_named = std::find(named.begin(), named.end(), topic) != named.end();
        if (snapshot && snapshot->condition == Condition::value) {
            found.rows.push_back({topic, std::move(*snapshot)});
            continue;
        }
        if (snapshot)
            problem = value_problem(topic, *snapshot);
        if (is_named || problem.kind != kNothing) // a pattern asks for values, not for empty topics
            found.problems.push_back(std::move(problem));
    }
    return found;
}

// Whether to look again: something named is missing, or there is nothing yet.
bool is_incomplete(const Found &found)
{
    return found.rows.empty() ||
           std::any_of(found.problems.begin(), found.problems.end(),
                       [](const Problem &problem) { return problem.kind == kNothing; });
}

int run_get(GetOptions &options, const Selection &selection)
{
    if (selection.single_topic() && !options.format.verbose)
        options.format.terse = true;

    const uint64_t deadline = monotonic_us() + static_cast<uint64_t>(options.timeout * 1e6);
    Outcome outcome;
    Found found = read_values(wanted_topics(selection, outcome), selection);
    bool timed_out = false;
    if (options.timeout > 0)
        catch_stop_signals();
    while (options.timeout > 0 && is_incomplete(found) && !timed_out) {
        timed_out = monotonic_us() >= deadline;
        if (!wait_until(std::min(deadline, monotonic_us() + kPollUs)))
            break;
        Outcome ignored;
        found = read_values(wanted_topics(selection, ignored), selection);
    }
    print_records(found.rows, options.format);
    (void)output().flush();
    outcome.note(found.problems);
    if (timed_out && is_incomplete(found) && outcome.code() <= kNothing)
        return kTimeout;
    if (found.rows.empty())
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_get(Commands &commands)
{
    const auto options = std::make_shared<GetOptions>();
    Command command =
        commands.add("get", "print values: alone for one topic, topic<TAB>value for several",
                     on_selection(options, run_get));
    add_selection(command, options->selection).required();
    command.add_flag("-v,--verbose", options->format.verbose, "with type, quality, times and age");
    command.add_flag("-T,--terse", options->format.terse, "values without their topics");
    command.add_number({"-t,--timeout", "wait so long for a value to appear", "SEC"},
                       options->timeout, 0.0, 1e9);
    add_format_options(command, options->format);
}

} // namespace kp::tool
