// kp info: every field of a segment and of its file, and who has it open.
#include "commands/commands.h"
#include "common/device/counts_lock.h"
#include "common/device/mapper_json.h"
#include "common/dictionary/fact_lines.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace kp::tool {

namespace {

constexpr unsigned kNearlyWrapped = 250; // the counts have 8 bits
constexpr std::size_t kLabelColumns = 12;

struct InfoOptions {
    std::string topic;
    FormatOptions format;
};

struct Users {
    std::vector<Mapper> mappers;
    std::size_t hidden = 0; // processes that could not be looked into

    unsigned writable() const
    {
        unsigned count = 0;
        for (const Mapper &mapper : mappers)
            count += mapper.writable;
        return count;
    }
};

Users users_of(const struct stat &status)
{
    Mappers all = find_mappers(status.st_dev);
    return {std::move(all.of_file[{status.st_dev, status.st_ino}]), all.unreadable.size()};
}

void field(const char *label, const std::string &text)
{
    output().line(padded(label, kLabelColumns) + text);
}

std::string stamp_text(uint64_t us, const FormatOptions &format)
{
    const uint64_t now = now_us();
    return time_text(us, format.time, now) +
           (us > now ? "  (in the future)" : "  (" + age_text(us, now) + " ago)");
}

std::string flags_text(const Snapshot &snapshot)
{
    std::string text = snapshot.flags & kValid ? "declared" : "not declared by a provider";
    text += snapshot.flags & kHasValue ? ", has a value" : ", no value";
    return snapshot.writing == 1 ? text + ", a write is going on" : text;
}

// What the counts say against what is mapped.
std::string counts_note(const Snapshot &snapshot, const Users &users)
{
    const unsigned counted = static_cast<unsigned>(snapshot.providers) + snapshot.consumers;
    const unsigned mapped = users.writable();
    if (snapshot.providers >= kNearlyWrapped || snapshot.consumers >= kNearlyWrapped)
        return "the counts wrap at 256";
    if (counted == mapped)
        return "";
    if (counted < mapped)
        return std::to_string(mapped) + " handles are open, more than are counted";
    return users.hidden > 0 ? std::to_string(mapped) + " open handles found; " +
                                  hidden_processes_text(users.hidden)
                            : std::to_string(counted - mapped) +
                                  " of them have no process any more (kp gc corrects that)";
}

// What is known of the semaphore, after a moment when it is taken.
struct LockState {
    CountsLock lock;
    bool stays_taken = false;
};

LockState lock_state(TopicOpener &opener, const std::string &topic)
{
    LockState state;
    state.stays_taken = !topics_that_stay_locked(opener, {topic}).empty();
    state.lock = look_at_counts_lock(opener, topic).value_or(CountsLock());
    return state;
}

void print_lock(const LockState &state)
{
    const std::string value = std::to_string(state.lock.value);
    if (!state.lock.is_made)
        field("semaphore", "-  (no handle was opened yet)");
    else if (state.stays_taken)
        field("semaphore", value + colored("  (taken, and who holds it was killed or is stopped)",
                                           Color::yellow));
    else
        field("semaphore", value + (state.lock.is_taken() ? "  (taken)" : "  (free)"));
}

void print_segment(const Row &row, const FormatOptions &format, const Users &users)
{
    const Snapshot &snapshot = row.snapshot;
    const bool declared = snapshot.flags & kValid;
    field("topic", escaped(row.topic));
    field("type", snapshot.type_name() ? std::string(snapshot.type_name()) + " (" +
                                             std::to_string(snapshot.type) + ")"
                                       : "-");
    const Meaning meaning = meaning_of(row.topic, snapshot);
    field("value", meant_value(meaning, shown_value(snapshot, format.bytes)));
    if (meaning.state)
        field("state", colored_by_state(state_text(meaning), meaning));
    if (snapshot.has_broken_value())
        field("problem", colored(value_problem(row.topic, snapshot).text, Color::red));
    field("size", declared ? std::to_string(snapshot.size) + " of at most " +
                                 std::to_string(snapshot.max) + " bytes"
                           : "-");
    field("quality", std::to_string(snapshot.quality) +
                         (snapshot.quality == KP_QUALITY_NONE   ? "  (none: consumers are not told)"
                          : snapshot.quality == KP_QUALITY_GOOD ? "  (good)"
                                                                : ""));
    field("written", stamp_text(snapshot.last_write_ts, format));
    field("source", snapshot.source_ts == 0 ? "-" : stamp_text(snapshot.source_ts, format));
    field("flags", flags_text(snapshot));
    field("extra", declared ? std::to_string(snapshot.extra) : "-");
    const std::string two_providers =
        snapshot.providers > 1 ? colored("  (more than one provider)", Color::yellow) : "";
    field("providers", std::to_string(snapshot.providers) + two_providers);
    const std::string note = counts_note(snapshot, users);
    field("consumers", std::to_string(snapshot.consumers) +
                           (note.empty() ? "" : colored("  (" + note + ")", Color::yellow)));
}

void print_file(const std::string &topic, const struct stat &status)
{
    field("file", escaped(std::string(kStoreRoot) + "/" + topic));
    field("inode", std::to_string(status.st_ino));
    field("bytes", std::to_string(status.st_size));
    field("mode", mode_text(status.st_mode));
    field("owner", user_name(status.st_uid) + ":" + group_name(status.st_gid));
}

void print_users(const Users &users)
{
    for (const Mapper &mapper : users.mappers) {
        const Process process = process_of(mapper.pid);
        std::string text = process_text(process);
        if (mapper.writable > 0)
            text += "  " + std::to_string(mapper.writable) + " open";
        if (mapper.read_only > 0)
            text += "  reading only";
        field("mapped by", text);
    }
    if (users.mappers.empty())
        field("mapped by", users.hidden > 0 ? "nobody that this user may see" : "nobody");
}

// What the dictionary says of the topic, with the place of each fact.
void print_facts(const std::string &topic)
{
    for (const FactLine &line : fact_lines(dictionary().facts_of(topic)))
        field("dictionary", line.key + " " + line.text +
                                colored("  [" + place_text(line.place) + "]", Color::dim));
}

nlohmann::ordered_json info_json(const Row &row, const FormatOptions &format,
                                 const struct stat &status, const Users &users,
                                 const LockState &state)
{
    auto object = described_json(row, format.bytes);
    object["semaphore"] =
        state.lock.is_made ? nlohmann::ordered_json(state.lock.value) : nlohmann::ordered_json();
    object["semaphore_stuck"] = state.stays_taken;
    object["file"] = std::string(kStoreRoot) + "/" + row.topic;
    object["inode"] = status.st_ino;
    object["bytes"] = status.st_size;
    object["mode"] = mode_text(status.st_mode);
    object["owner"] = user_name(status.st_uid);
    object["group"] = group_name(status.st_gid);
    add_mappers(object, users.mappers, users.hidden);
    if (const Facts facts = dictionary().facts_of(row.topic); facts.is_known)
        object["dictionary"] = facts_json(facts);
    return object;
}

int run_info(const InfoOptions &options)
{
    Problem problem;
    const auto topic = normal_topic(options.topic, problem);
    if (!topic)
        return complain(problem);
    const Format format = options.format.format;
    if ((format != Format::plain && format != Format::json) ||
        !options.format.field_template.empty())
        return complain(Problem{kUsage, "info has the formats plain and json; get has the others"});
    TopicOpener opener;
    struct stat status;
    if (!opener.status(*topic, status, problem))
        return complain(problem);
    // Before the look into the segment, which would be a mapping of its own.
    const Users users = users_of(status);
    auto snapshot = read_topic(opener, *topic, problem);
    if (!snapshot)
        return complain(problem);
    const LockState lock = lock_state(opener, *topic);
    const Row row{*topic, std::move(*snapshot)};
    if (options.format.format == Format::json) {
        output().write(json_line(info_json(row, options.format, status, users, lock)));
    } else {
        print_segment(row, options.format, users);
        print_lock(lock);
        print_file(*topic, status);
        print_users(users);
        print_facts(*topic);
    }
    return row.snapshot.has_broken_value() ? kInvalid : kDone;
}

} // namespace

void add_info(Commands &commands)
{
    const auto options = std::make_shared<InfoOptions>();
    Command command = commands.add("info", "everything about one topic and who has it open",
                                   [options] { return run_info(*options); });
    command.alias("inspect");
    command.add_text({"topic", "the topic", "TOPIC"}, options->topic).required();
    add_format_options(command, options->format);
}

} // namespace kp::tool
