// kp set: one value, or many from JSON lines, checked against what the topic is.
#include "commands/commands.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "common/writing/meant_write.h"
#include "common/writing/notice_sender.h"
#include "layout/value_type.h"
#include "options/record_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"
#include "running/line_reader.h"
#include "writing/remedies.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr std::size_t kMostInput = 1 << 20;

struct SetOptions {
    std::string topic;
    std::string value;
    std::vector<std::string> more;
    std::string type;
    int quality = -1;
    std::string source_time;
    double peer_wait = 0.3;
    bool batch = false;
    bool json = false;
    bool force = false;
    bool text = false;
    ByteStyle bytes = ByteStyle::hex;
};

// All of standard input, or nothing with a problem when it is more than any value could be.
std::optional<std::string> read_input(Problem &problem)
{
    std::string text(std::istreambuf_iterator<char>(std::cin), {});
    if (text.size() <= kMostInput)
        return text;
    problem = {kUsage, "standard input is too long for a value"};
    return std::nullopt;
}

// The value's bytes. From standard input a binary value is taken as it is, a text without the line
// break that ends it.
std::optional<std::string> value_bytes(const SetOptions &options, const Facts &facts, uint32_t type,
                                       Problem &problem)
{
    const bool literal = is_binary_type(type) && options.text;
    if (options.value != "-") {
        const uint32_t as = literal ? static_cast<uint32_t>(KP_TYPE_STRING) : type;
        const bool has_names = !has_variable_size(type);
        return parse_value(as, has_names ? value_behind_name(facts, options.value) : options.value,
                           options.bytes, problem);
    }
    auto input = read_input(problem);
    if (!input)
        return std::nullopt;
    if (is_binary_type(type))
        return parse_value(KP_TYPE_STRING, *input, options.bytes, problem);
    if (input->ends_with('\n'))
        input->pop_back();
    return parse_value(type, *input, options.bytes, problem);
}

std::optional<Write> requested_write(const SetOptions &options, Problem &problem)
{
    Write write;
    auto topic = normal_topic(options.topic, problem);
    if (!topic)
        return std::nullopt;
    if (is_pattern(options.topic)) {
        problem = {kUsage,
                   "\"" + escaped(options.topic) + "\" is a pattern; a value has one topic"};
        return std::nullopt;
    }
    write.topic = std::move(*topic);
    write.spelling = options.topic;
    write.change_type = options.force;
    write.remedies = kRemedies;
    take_declaration(write, dictionary().facts_of(write.topic));
    if (!options.type.empty())
        write.type = kp_str2type(options.type.c_str());
    if (options.quality >= 0)
        write.quality = static_cast<uint8_t>(options.quality);
    if (!options.source_time.empty()) {
        write.source_ts = parse_time(options.source_time);
        if (!write.source_ts) {
            problem = {kUsage, "\"" + escaped(options.source_time) +
                                   "\" is neither microseconds since 1970 nor a time such as "
                                   "2026-11-20T20:30:00.123456Z"};
            return std::nullopt;
        }
    }
    return write;
}

void print_change(const SetOptions &options, const Write &write, const Target &target)
{
    TopicOpener opener;
    Problem problem;
    const auto after = read_topic(opener, write.topic, problem);
    if (!after)
        return;
    const bool had_value = target.before.condition == Condition::value;
    if (options.json) {
        auto object = described_json({write.topic, *after}, options.bytes);
        object["old"] = had_value
                            ? value_json(target.before.type, target.before.bytes, options.bytes)
                            : nlohmann::ordered_json();
        output().write(json_line(object));
        return;
    }
    const auto shown = [&](const Snapshot &snapshot) {
        return meant_value(meaning_of(write.topic, snapshot), shown_value(snapshot, options.bytes));
    };
    output().line(escaped(write.topic) + '\t' + shown(target.before) +
                  (locale_is_utf8() ? " → " : " -> ") + shown(*after));
}

int send_notice(NoticeSender &sender, const SetOptions &options)
{
    Problem problem;
    (void)output().flush();
    return sender.send(static_cast<uint64_t>(options.peer_wait * 1e6), problem) ? kDone
                                                                                : complain(problem);
}

// Stores what the options' topic and value say, and marks it for the next notice.
bool store_one(const SetOptions &options, NoticeSender &sender, Problem &problem)
{
    const auto write = requested_write(options, problem);
    const auto target = write ? find_target(*write, problem) : std::nullopt;
    const Facts facts = write ? dictionary().facts_of(write->topic) : Facts();
    const auto bytes = target ? value_bytes(options, facts, target->type, problem) : std::nullopt;
    if (!bytes || (!options.force && !check_range(*write, facts, target->type, *bytes, problem)) ||
        !store_value(*write, *target, bytes, problem))
        return false;
    print_change(options, *write, *target);
    sender.mark(write->topic, write->spelling, target->is_new);
    return true;
}

int set_one(const SetOptions &options)
{
    Problem problem;
    NoticeSender sender;
    return store_one(options, sender, problem) ? send_notice(sender, options) : complain(problem);
}

// "topic=value", as often as it is there. Each is tried, as with a batch.
int set_assignments(SetOptions options, const std::vector<std::string> &words)
{
    Outcome outcome;
    NoticeSender sender;
    for (const std::string &word : words) {
        const std::size_t sign = word.find('=');
        options.topic = word.substr(0, sign);
        options.value = word.substr(sign + 1);
        Problem problem{kUsage, escaped(word) + ": a value is needed, and not an empty one"};
        if (options.value.empty() || !store_one(options, sender, problem))
            outcome.note(problem);
    }
    outcome.note(send_notice(sender, options));
    return outcome.code();
}

// Words are assignments when all have the sign, unless they are two and the first is a topic's
// name.
bool are_assignments(const std::vector<std::string> &words)
{
    const auto has_sign = [](const std::string &word) {
        return word.find('=') != std::string::npos && word[0] != '=';
    };
    Problem ignored;
    struct stat status;
    TopicOpener opener;
    const auto first = words.size() == 2 ? normal_topic(words[0], ignored) : std::nullopt;
    return !words.empty() && std::all_of(words.begin(), words.end(), has_sign) &&
           !(first && opener.status(*first, status, ignored));
}

// Stores what a line of a batch says.
std::optional<Target> store_record(const SetOptions &options, Record &record, Problem &problem)
{
    record.write.change_type = options.force;
    record.write.remedies = kRemedies;
    return store_meant_record(record, dictionary().facts_of(record.write.topic), problem);
}

// Every line is tried; a bad one is told with its number and the others are stored all the same.
int set_batch(const SetOptions &options)
{
    Outcome outcome;
    NoticeSender sender;
    LineReader lines(STDIN_FILENO);
    while (const auto line = lines.next()) {
        Problem problem;
        auto record = parse_record(*line, options.bytes, problem);
        const auto target = record ? store_record(options, *record, problem) : std::nullopt;
        if (!target) {
            outcome.note(lines.at_line(problem));
            continue;
        }
        print_change(options, record->write, *target);
        sender.mark(record->write.topic, record->write.spelling, target->is_new);
    }
    if (const auto unread = lines.problem(input_name("-")))
        outcome.note(*unread);
    outcome.note(send_notice(sender, options));
    return outcome.code();
}

int run_set(const SetOptions &options)
{
    if (options.batch) {
        if (options.topic.empty())
            return set_batch(options);
        return complain(Problem{kUsage, "--batch takes its topics from standard input"});
    }
    std::vector<std::string> words = {options.topic, options.value};
    words.insert(words.end(), options.more.begin(), options.more.end());
    words.erase(std::find(words.begin(), words.end(), ""), words.end());
    if (are_assignments(words))
        return set_assignments(options, words);
    if (!options.more.empty())
        return complain(Problem{kUsage, "several topics are set as topic=value topic=value"});
    if (words.size() < 2)
        return complain(Problem{kUsage, words.empty() ? "a topic and a value are needed"
                                                      : "a value is needed, and not an empty one"});
    return set_one(options);
}

} // namespace

void add_set(Commands &commands)
{
    const auto options = std::make_shared<SetOptions>();
    Command command = commands.add("set", "write a value; prints old and new",
                                   [options] { return run_set(*options); });
    command.alias("put");
    command.add_text({"topic", "the topic, or TOPIC=VALUE", "TOPIC"}, options->topic);
    command.add_text({"value", "the value; - takes it from standard input", "VALUE"},
                     options->value);
    command.add_words({"more", "any number of TOPIC=VALUE", "TOPIC=VALUE"}, options->more);
    Option type = command.add_text({"--type", "the type of a new topic", "TYPE"}, options->type);
    type.check([](const std::string &name) {
        return kp_str2type(name.c_str()) < kValueTypeCount ? "" : "no such type: " + name;
    });
    const Option quality =
        command.add_number({"-q,--quality", "the quality (1 is good); 255 keeps it", "0..255"},
                           options->quality, 0, 255);
    const Option source_time = command.add_text(
        {"--source-time", "the source's time: microseconds since 1970, or ISO 8601 in UTC", "TIME"},
        options->source_time);
    command
        .add_flag("--batch", options->batch,
                  "JSON lines from standard input, as list -j prints them; one notice at the end")
        .excludes({type, quality, source_time}); // each line has its own
    command.add_flag("--force", options->force,
                     "change the type of a topic that exists, and set a value outside its range");
    command.add_flag("--text", options->text, "a bytearray or raw value is given as text");
    command.on_flag(
        "--base64", [options] { options->bytes = ByteStyle::base64; },
        "a bytearray or raw value is given in base64");
    add_peer_wait(command, options->peer_wait);
    command.add_flag("-j,--json", options->json, "print the new state as a JSON line");
}

} // namespace kp::tool
