// kp check: holds the store against the dictionary, for monitoring.
#include "commands/commands.h"
#include "common/clock.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "common/values/value_text.h"
#include "layout/value_type.h"
#include "looking/noted_listing.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <unordered_set>

namespace kp::tool {

namespace {

struct CheckOptions {
    SelectionOptions selection;
    bool limits = false;
    bool json = false;
};

// One way in which the store differs from the dictionary.
struct Deviation {
    const char *check; // a word that stays the same, for monitoring
    std::string topic;
    std::string text;
    const FilePlace *place = nullptr; // where the dictionary says so; null where it says nothing
};

class Check {
  public:
    Check(const CheckOptions &options, const Selection &selection)
        : options_(options), selection_(selection)
    {
    }

    int run()
    {
        const auto mistakes = dictionary_problems();
        if (dictionary().is_empty()) {
            tell_mistakes(mistakes);
            return complain(Problem{kUsage, escaped(dictionary_directory()) +
                                                ": no dictionary to hold the store against"});
        }
        for (const DictionaryProblem &mistake : mistakes)
            tell({"dictionary", "", mistake.text, &mistake.place});
        look_at_store();
        dictionary().for_each_entry([this](const DictionaryEntry &entry) {
            const auto topic = topic_of(entry);
            if (topic && selection_.covers(*topic) && seen_.insert(*topic).second)
                tell({"missing", *topic, "is not in the store", &entry.place});
        });
        if (found_ > 0)
            return kNothing;
        if (outcome_.code() == kDone && !options_.json)
            output().line("all " + std::to_string(seen_.size()) +
                          " topics are as the dictionary says");
        return outcome_.code();
    }

  private:
    void look_at_store()
    {
        const StoreListing listing = list_store(selection_, outcome_);
        TopicOpener opener;
        for (const StoreFile &file : listing.files) {
            Problem problem;
            const auto snapshot = read_topic(opener, file.topic, problem);
            if (!snapshot && problem.kind == kNothing)
                continue; // it has just been removed
            seen_.insert(file.topic);
            if (snapshot)
                look_at(file.topic, *snapshot);
            else if (problem.kind == kInvalid)
                tell({"unreadable", file.topic, problem.text});
            else
                outcome_.note(problem);
        }
    }

    void look_at(const std::string &topic, const Snapshot &snapshot)
    {
        const Meaning meaning = meaning_of(topic, snapshot);
        if (!meaning.facts.is_known)
            return tell({"unknown", topic, "is not in the dictionary"});
        look_at_limits(topic, meaning.facts);
        if (snapshot.has_broken_value())
            return tell({"unreadable", topic, value_problem(topic, snapshot).text});
        if (snapshot.condition == Condition::undeclared)
            return look_at_undeclared(topic, meaning.facts);
        look_at_type(topic, snapshot, meaning.facts);
        if (meaning.state)
            look_at_value(topic, snapshot, meaning);
        else if (meaning.facts.stale_s)
            tell({"stale", topic, "has no value yet", &meaning.facts.stale_s->place});
    }

    // Limits and range may come from two entries, each right by itself.
    void look_at_limits(const std::string &topic, const Facts &facts)
    {
        if (facts.limits && facts.range && !lie_in(facts.limits->value, facts.range->value))
            tell({"dictionary", topic, "limits: one lies outside " + range_text(facts),
                  &facts.limits->place});
    }

    // Somebody waits for it, and nobody provides it.
    void look_at_undeclared(const std::string &topic, const Facts &facts)
    {
        if (facts.type)
            tell({"missing", topic, "no provider has declared it", &facts.type->place});
    }

    void look_at_type(const std::string &topic, const Snapshot &snapshot, const Facts &facts)
    {
        if (facts.type && facts.type->value != snapshot.type)
            tell({"type", topic,
                  "is " + std::string(snapshot.type_name()) + " and not " +
                      kValueTypes[facts.type->value].name,
                  &facts.type->place});
        else if (facts.size && has_variable_size(snapshot.type) && snapshot.max != 0 &&
                 snapshot.max != facts.size->value)
            tell({"size", topic,
                  "has room for " + std::to_string(snapshot.max) + " bytes and not " +
                      std::to_string(facts.size->value),
                  &facts.size->place});
    }

    void look_at_value(const std::string &topic, const Snapshot &snapshot, const Meaning &meaning)
    {
        const std::string value = value_text(snapshot.type, snapshot.bytes);
        if (!is_in_range(meaning.facts, snapshot.type, snapshot.bytes))
            tell({"range", topic, value + " is outside " + range_text(meaning.facts),
                  &meaning.facts.range->place});
        if (*meaning.state == ValueState::bad_quality)
            tell({"quality", topic, "has the quality " + std::to_string(snapshot.quality)});
        else if (*meaning.state == ValueState::stale)
            tell({"stale", topic,
                  "was written " + age_text(snapshot.last_write_ts, now_us()) + " ago",
                  &meaning.facts.stale_s->place});
        else if (*meaning.state != ValueState::ok && options_.limits)
            tell({"limit", topic, meant_value(meaning, value) + " is " + state_text(meaning),
                  &meaning.facts.limits->place});
    }

    void tell(const Deviation &deviation)
    {
        ++found_;
        if (!options_.json) {
            const std::string subject =
                deviation.topic.empty() ? "" : escaped(deviation.topic) + ": ";
            const std::string place =
                deviation.place ? colored("  [" + place_text(*deviation.place) + "]", Color::dim)
                                : "";
            output().line(colored(deviation.check, Color::yellow) + ": " + subject +
                          deviation.text + place);
            return;
        }
        nlohmann::ordered_json object{
            {"check", deviation.check}, {"topic", deviation.topic}, {"text", deviation.text}};
        if (deviation.place) {
            object["file"] = *deviation.place->file;
            object["line"] = deviation.place->line;
            object["column"] = deviation.place->column;
        }
        output().write(json_line(object));
    }

    const CheckOptions &options_;
    const Selection &selection_;
    Outcome outcome_;
    std::unordered_set<std::string> seen_;
    std::size_t found_ = 0;
};

int run_check(const CheckOptions &options, const Selection &selection)
{
    return Check(options, selection).run();
}

} // namespace

void add_check(Commands &commands)
{
    const auto options = std::make_shared<CheckOptions>();
    Command command = commands.add("check", "hold the store against the dictionary",
                                   on_selection(options, run_check));
    add_selection(command, options->selection);
    command.add_flag("--limits", options->limits, "tell also of values at or beyond their limits");
    command.add_flag("-j,--json", options->json, "one JSON object a finding");
}

} // namespace kp::tool
