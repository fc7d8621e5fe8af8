// kp wait: ends when a condition on one topic holds.
#include "commands/commands.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "looking/topic_condition.h"
#include "notices/notice_queue.h"
#include "output/output.h"
#include "output/row_format.h"
#include "running/standard_stream.h"
#include "running/stop.h"

#include <algorithm>
#include <limits>
#include <memory>

namespace kp::tool {

namespace {

constexpr uint64_t kPollUs = 10'000;
constexpr uint64_t kMeshPollUs = kUsPerSecond; // a notice can be lost, and not all writes send one

struct WaitOptions {
    std::string topic;
    std::vector<std::string> condition;
    double timeout = -1;
    bool mesh = false;
    bool verbose = false;
};

bool same_write(const Snapshot &a, const Snapshot &b)
{
    return stamp_of(a).same_write(stamp_of(b)) && a.bytes == b.bytes;
}

class Waiting {
  public:
    Waiting(std::string topic, TopicCondition condition)
        : topic_(std::move(topic)), condition_(std::move(condition))
    {
    }

    // Says whether the condition holds now. Gives nothing, with a problem, when it never can.
    std::optional<bool> is_met(Problem &problem)
    {
        TopicOpener opener;
        Problem missing;
        const auto snapshot = read_topic(opener, topic_, missing);
        if (!snapshot && missing.kind == kPermission) {
            problem = missing;
            return std::nullopt;
        }
        note_problem(snapshot, missing);
        if (snapshot)
            last_ = *snapshot;
        if (condition_.test == Test::exists)
            return snapshot.has_value();
        if (condition_.test == Test::changes)
            return has_changed(snapshot);
        if (!snapshot || snapshot->condition != Condition::value)
            return false;
        if (condition_.test == Test::fresh)
            return snapshot->last_write_ts + condition_.age_us >= now_us();
        return is_met_by(condition_, *snapshot, problem);
    }

    const std::string &topic() const
    {
        return topic_;
    }
    // Gives what the last look read that could read the topic.
    const Snapshot &last() const
    {
        return last_;
    }
    // Give what keeps the topic from being read at present, and since when. It may pass: a file is
    // short while it is made, and somebody may write what was left unfinished.
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
        if (!snapshot && missing.kind != kNothing)
            found = missing;
        if (snapshot && snapshot->has_broken_value())
            found = value_problem(topic_, *snapshot);
        if (problem_.kind == kDone)
            problem_since_ = monotonic_us();
        problem_ = std::move(found);
    }

    bool has_changed(const std::optional<Snapshot> &now)
    {
        if (now && now->condition != Condition::value && now->condition != Condition::empty)
            return false; // it is being written
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
    TopicCondition condition_;
    bool has_looked_ = false;
    std::optional<Snapshot> before_;
    Snapshot last_;
    Problem problem_;
    uint64_t problem_since_ = 0;
};

void print(const Waiting &waiting)
{
    FormatOptions format;
    format.verbose = true;
    output().write(row_record({waiting.topic(), waiting.last()}, format));
}

// Gives the code for a condition that did not come to hold.
int give_up(const Waiting &waiting, int code)
{
    return waiting.problem().kind == kDone ? code : complain(waiting.problem());
}

// Gives what is waited for; nothing, with a problem, when the words do not say it.
std::optional<Waiting> waiting_of(const WaitOptions &options, Problem &problem)
{
    const auto topic = normal_topic(options.topic, problem);
    if (!topic)
        return std::nullopt;
    const auto condition = parse_condition(options.condition);
    if (!condition) {
        problem = {kUsage, "a condition is == != < <= > >= with a value, changes, exists or fresh "
                           "SEC"};
        return std::nullopt;
    }
    if (is_pattern(options.topic)) {
        problem = {kUsage,
                   "\"" + escaped(options.topic) + "\" is a pattern; wait looks at one topic"};
        return std::nullopt;
    }
    return Waiting(*topic, *condition);
}

// Waits for the time of the next look, a notice or `end`. False when the program has to stop.
bool wait_for_next_look(NoticeQueue *queue, uint64_t end)
{
    const uint64_t next = std::min(end, monotonic_us() + (queue ? kMeshPollUs : kPollUs));
    if (!queue)
        return wait_until(next);
    if (!wait_readable(queue->fd(), next))
        return false;
    (void)queue->take();
    return true;
}

// Looks again and again until the condition holds or the time is over; gives the exit code.
int wait_until_met(Waiting &waiting, const WaitOptions &options, NoticeQueue *queue, uint64_t end)
{
    bool is_told = false;
    for (;;) {
        Problem problem;
        const auto met = waiting.is_met(problem);
        if (!met)
            return complain(problem);
        if (*met) {
            if (options.verbose)
                print(waiting);
            return kDone;
        }
        const uint64_t now = monotonic_us();
        if (options.timeout == 0)
            return give_up(waiting, kNothing);
        if (now >= end)
            return give_up(waiting, kTimeout);
        if (options.timeout < 0 && !is_told && waiting.problem().kind != kDone &&
            now >= waiting.problem_since() + kUsPerSecond) {
            is_told = true;
            complain(waiting.problem().text);
        }
        if (!wait_for_next_look(queue, end))
            return kNothing; // replaced by what stopped the program
    }
}

int run_wait(const WaitOptions &options)
{
    Problem problem;
    auto waiting = waiting_of(options, problem);
    if (!waiting)
        return complain(problem);

    catch_stop_signals();
    const uint64_t end = options.timeout < 0
                             ? std::numeric_limits<uint64_t>::max()
                             : monotonic_us() + static_cast<uint64_t>(options.timeout * 1e6);
    if (options.timeout > 0)
        StandardStream::set_deadline(end);
    std::unique_ptr<NoticeQueue> queue;
    if (options.mesh && options.timeout != 0 && !(queue = NoticeQueue::join(end, problem)))
        return complain(problem);
    return wait_until_met(*waiting, options, queue.get(), end);
}

} // namespace

void add_wait(Commands &commands)
{
    const auto options = std::make_shared<WaitOptions>();
    Command command = commands.add("wait", "wait until a condition on a topic holds",
                                   [options] { return run_wait(*options); });
    command.add_text({"topic", "the topic", "TOPIC"}, options->topic).required();
    command
        .add_words({"condition",
                    "== != < <= > >= VALUE, changes, exists, or fresh SEC (written at most so long "
                    "ago)",
                    "CONDITION"},
                   options->condition)
        .required();
    command.add_number(
        {"-t,--timeout",
         "give up after so long, with code 124; 0 only tests, with code 1 when it is false", "SEC"},
        options->timeout, 0.0, 1e9);
    command.add_flag("-v,--verbose", options->verbose,
                     "print the value that meets the condition, as get -v does");
    command.add_flag("--mesh", options->mesh,
                     "join the mesh and look when a change notice comes, and once a second");
}

} // namespace kp::tool
