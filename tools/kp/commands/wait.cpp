// kp wait: ends when a condition on one topic holds.
#include "commands/commands.h"
#include "common/pattern.h"
#include "common/text.h"
#include "notices/notice_queue.h"
#include "options/option_checks.h"
#include "output/output.h"
#include "output/row_format.h"
#include "running/stop.h"

#include <charconv>
#include <limits>

namespace kp::tool {

namespace {

constexpr uint64_t kPollUs = 10'000;
constexpr uint64_t kMeshPollUs = kUsPerSecond; // a notice can be lost, and not all writes send one

enum class Test { equal, unequal, less, at_most, more, at_least, changes, exists, fresh };

struct WaitOptions {
    std::string topic;
    std::vector<std::string> condition;
    double timeout = -1;
    bool mesh = false;
    bool verbose = false;
};

struct Wanted {
    Test test = Test::exists;
    std::string operand;
    uint64_t age_us = 0;
};

std::string trimmed(const std::string &text)
{
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// "==5", "== 5" in one word and in two alike; longer signs come first. A word of its own is the
// operand as it stands.
std::optional<Wanted> comparison(const std::string &first, const std::vector<std::string> &rest)
{
    const std::array<std::pair<std::string_view, Test>, 7> signs = {{{"==", Test::equal},
                                                                     {"!=", Test::unequal},
                                                                     {"<=", Test::at_most},
                                                                     {">=", Test::at_least},
                                                                     {"<", Test::less},
                                                                     {">", Test::more},
                                                                     {"=", Test::equal}}};
    for (const auto &[sign, test] : signs) {
        if (!first.starts_with(sign))
            continue;
        const std::string glued = trimmed(first.substr(sign.size()));
        if (glued.empty() ? rest.size() != 1 : !rest.empty())
            return std::nullopt;
        return Wanted{test, glued.empty() ? rest.front() : glued, 0};
    }
    return std::nullopt;
}

std::optional<Wanted> freshness(const std::vector<std::string> &rest)
{
    double seconds = 0;
    if (rest.size() != 1)
        return std::nullopt;
    const char *end = rest[0].data() + rest[0].size();
    const auto result = std::from_chars(rest[0].data(), end, seconds);
    if (result.ec != std::errc() || result.ptr != end || !(seconds >= 0 && seconds < 1e9))
        return std::nullopt;
    return Wanted{Test::fresh, "", static_cast<uint64_t>(seconds * 1e6)};
}

std::optional<Wanted> parse_condition(const std::vector<std::string> &given)
{
    std::vector<std::string> words = given;
    words[0] = trimmed(words[0]);
    if (words.size() == 1 && words[0].starts_with("fresh "))
        words = {"fresh", trimmed(words[0].substr(6))};
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (words[0] == "fresh")
        return freshness(rest);
    if (words[0] == "changes" && rest.empty())
        return Wanted{Test::changes, "", 0};
    if (words[0] == "exists" && rest.empty())
        return Wanted{Test::exists, "", 0};
    return comparison(words[0], rest);
}

bool holds(Test test, std::optional<int> order)
{
    switch (test) {
    case Test::equal:
        return order == 0;
    case Test::unequal:
        return order != 0;
    case Test::less:
        return order && *order < 0;
    case Test::at_most:
        return order && *order <= 0;
    case Test::more:
        return order && *order > 0;
    default:
        return order && *order >= 0;
    }
}

std::optional<long double> number_of(const std::string &text)
{
    long double number = 0;
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end)
        return std::nullopt;
    return number;
}

// Compares a value with an operand: in the value's type, or as numbers if the operand is a number
// that the type does not have, such as 4.5 for integers. Gives nothing, with a problem, if the
// operand is neither.
struct Comparison {
    std::optional<int> order; // nothing for what is not a number
};
std::optional<Comparison> compare(const Snapshot &snapshot, const std::string &operand,
                                  Problem &problem)
{
    const bool is_number = is_number_type(snapshot.type);
    const std::string text = is_number ? trimmed(operand) : operand;
    if (const auto bytes = parse_value(snapshot.type, text, ByteStyle::hex, problem))
        return Comparison{compare_values(snapshot.type, snapshot.bytes, *bytes)};
    const auto right = is_number ? number_of(text) : std::nullopt;
    const auto left = right ? number_of(value_text(snapshot.type, snapshot.bytes)) : std::nullopt;
    if (!left || !right)
        return std::nullopt;
    if (*left == *right)
        return Comparison{0};
    return *left < *right || *left > *right ? Comparison{*left < *right ? -1 : 1} : Comparison{};
}

bool same_write(const Snapshot &a, const Snapshot &b)
{
    return a.last_write_ts == b.last_write_ts && a.source_ts == b.source_ts &&
           a.quality == b.quality && a.flags == b.flags && a.bytes == b.bytes;
}

class Waiting {
  public:
    Waiting(std::string topic, Wanted wanted) : topic_(std::move(topic)), wanted_(std::move(wanted))
    {
    }

    // Whether the condition holds now; nothing with a problem when it never can.
    std::optional<bool> is_met(Problem &problem)
    {
        TopicOpener opener;
        Problem missing;
        const auto snapshot = read_topic(opener, topic_, missing);
        if (!snapshot && missing.code == kPermission) {
            problem = missing;
            return std::nullopt;
        }
        note_problem(snapshot, missing);
        if (snapshot)
            last_ = *snapshot;
        if (wanted_.test == Test::exists)
            return snapshot.has_value();
        if (wanted_.test == Test::changes)
            return has_changed(snapshot);
        if (!snapshot || snapshot->condition != Condition::value)
            return false;
        if (wanted_.test == Test::fresh)
            return snapshot->last_write_ts + wanted_.age_us >= now_us();
        const auto comparison = compare(*snapshot, wanted_.operand, problem);
        if (!comparison)
            return std::nullopt;
        return holds(wanted_.test, comparison->order);
    }

    // What was read at the last look that could read the topic.
    const Snapshot &last() const
    {
        return last_;
    }
    // What keeps the topic from being read at present, and since when. It may pass: a file is short
    // while it is made, and somebody may write what was left unfinished.
    const Problem &problem() const
    {
        return problem_;
    }
    uint64_t problem_since() const
    {
        return problem_since_;
    }

  private:
    void note_problem(const std::optional<Snapshot> &snapshot, const Problem &missing)
    {
        Problem found;
        if (!snapshot && missing.code != kNothing)
            found = missing;
        if (snapshot &&
            (snapshot->condition == Condition::busy || snapshot->condition == Condition::corrupt))
            found = value_problem(topic_, *snapshot);
        if (problem_.code == kDone)
            problem_since_ = monotonic_us();
        problem_ = std::move(found);
    }

    bool has_changed(const std::optional<Snapshot> &now)
    {
        if (now && now->condition != Condition::value && now->condition != Condition::empty)
            return false; // in the middle of a write
        if (!has_looked_) {
            has_looked_ = true;
            before_ = now;
            return false;
        }
        const bool had_value = before_ && before_->condition == Condition::value;
        const bool has_value = now && now->condition == Condition::value;
        return has_value && (!had_value || !same_write(*before_, *now));
    }

    std::string topic_;
    Wanted wanted_;
    bool has_looked_ = false;
    std::optional<Snapshot> before_;
    Snapshot last_;
    Problem problem_;
    uint64_t problem_since_ = 0;
};

// The code when the condition did not come to hold.
int give_up(const Waiting &waiting, int code)
{
    return waiting.problem().code == kDone ? code : complain(waiting.problem());
}

int run_wait(const WaitOptions &options)
{
    Problem problem;
    const auto topic = normal_topic(options.topic, problem);
    if (!topic)
        return complain(problem);
    const auto wanted = parse_condition(options.condition);
    if (!wanted)
        return complain(Problem{
            kUsage, "a condition is == != < <= > >= with a value, changes, exists or fresh SEC"});

    if (is_pattern(options.topic))
        return complain(Problem{kUsage, "\"" + escaped(options.topic) +
                                            "\" is a pattern; wait looks at one topic"});

    catch_stop_signals();
    const uint64_t end = options.timeout < 0
                             ? std::numeric_limits<uint64_t>::max()
                             : monotonic_us() + static_cast<uint64_t>(options.timeout * 1e6);
    std::unique_ptr<NoticeQueue> queue;
    if (options.mesh && options.timeout != 0 && !(queue = NoticeQueue::join(problem)))
        return complain(problem);
    Waiting waiting(*topic, *wanted);
    bool is_told = false;
    for (;;) {
        const auto met = waiting.is_met(problem);
        if (!met)
            return complain(problem);
        if (*met) {
            FormatOptions format;
            format.verbose = true;
            if (options.verbose)
                output().write(row_record({*topic, waiting.last()}, format));
            return kDone;
        }
        const uint64_t now = monotonic_us();
        if (options.timeout == 0)
            return give_up(waiting, kNothing);
        if (now >= end)
            return give_up(waiting, kTimeout);
        if (options.timeout < 0 && !is_told && waiting.problem().code != kDone &&
            now >= waiting.problem_since() + kUsPerSecond) {
            is_told = true;
            complain(waiting.problem().text);
        }
        const uint64_t next = std::min(end, monotonic_us() + (queue ? kMeshPollUs : kPollUs));
        if (!(queue ? wait_readable(queue->fd(), next) : wait_until(next)))
            return kNothing; // replaced by what stopped the program
        if (queue)
            (void)queue->take();
    }
}

} // namespace

void add_wait(Commands &commands)
{
    const auto options = std::make_shared<WaitOptions>();
    CLI::App &command = commands.add("wait", "wait until a condition on a topic holds",
                                     [options] { return run_wait(*options); });
    command.add_option("topic", options->topic, "the topic")->type_name("TOPIC")->required();
    command
        .add_option("condition", options->condition,
                    "== != < <= > >= VALUE, changes, exists, or fresh SEC (written at most so long "
                    "ago)")
        ->type_name("CONDITION")
        ->required();
    command
        .add_option(
            "-t,--timeout", options->timeout,
            "give up after so long, with code 124; 0 only tests, with code 1 when it is false")
        ->type_name("SEC")
        ->check(in_range(0.0, 1e9));
    command.add_flag("-v,--verbose", options->verbose,
                     "print the value that meets the condition, as get -v does");
    command.add_flag("--mesh", options->mesh,
                     "join the mesh and look when a change notice comes, and once a second");
}

} // namespace kp::tool
