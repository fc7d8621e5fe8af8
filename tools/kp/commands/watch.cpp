// kp watch and kp record: a line for each change, by sampling or, asked to, on the notices of the
// mesh.
#include "commands/commands.h"
#include "common/store/live_store.h"
#include "common/writing/record_line.h"
#include "notices/notice_queue.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"
#include "running/standard_stream.h"
#include "running/stop.h"

#include <algorithm>
#include <limits>
#include <memory>

namespace kp::tool {

namespace {

constexpr uint64_t kMeshRefreshUs = kUsPerSecond; // what notices did not tell is found as often

struct WatchOptions {
    SelectionOptions selection;
    FormatOptions format;
    double rate = 10;
    double timeout = 0;
    uint64_t count = 0;
    bool mesh = false;
    bool no_initial = false;
    bool initial_only = false;
    bool is_record = false; // lines that replay takes
};

class Watch {
  public:
    Watch(const WatchOptions &options, const Selection &selection)
        : options_(options), store_(selection)
    {
    }

    int run()
    {
        const uint64_t start = monotonic_us();
        end_ = options_.timeout > 0 ? start + static_cast<uint64_t>(options_.timeout * 1e6)
                                    : std::numeric_limits<uint64_t>::max();
        StandardStream::set_deadline(end_);
        Problem problem;
        std::unique_ptr<NoticeQueue> queue;
        if (options_.mesh && !(queue = NoticeQueue::join(end_, problem)))
            return complain(problem);
        if (!options_.is_record)
            output().write(header_line(options_.format));
        look(nullptr);
        is_first_look_ = false;
        if (options_.initial_only)
            return code();
        if (queue)
            follow(*queue);
        else
            sample(start);
        return code();
    }

  private:
    void sample(uint64_t next)
    {
        const auto step = static_cast<uint64_t>(1e6 / options_.rate);
        while (goes_on()) {
            next = std::max(next + step, monotonic_us());
            if (!wait_until(std::min(next, end_)))
                return;
            look(nullptr);
        }
    }

    // Every second all topics are looked at, since a notice can be lost: one that is sent before
    // the sender has accepted this program's connection does not come.
    void follow(NoticeQueue &queue)
    {
        uint64_t look_at_all = monotonic_us() + kMeshRefreshUs;
        while (goes_on()) {
            if (!wait_readable(queue.fd(), std::min(look_at_all, end_)))
                return;
            const Buckets notice = queue.take();
            const bool all = monotonic_us() >= look_at_all;
            look(all ? nullptr : &notice);
            if (all)
                look_at_all = monotonic_us() + kMeshRefreshUs;
        }
    }

    bool goes_on() const
    {
        return output().is_open() && !is_complete() && monotonic_us() < end_;
    }
    bool is_complete() const
    {
        return options_.count > 0 && printed_ >= options_.count;
    }

    // A look at every topic, or at those that a notice speaks of.
    void look(const Buckets *notice)
    {
        if (!options_.is_record)
            tell_mistakes(refresh_dictionary().mistakes);
        store_.refresh();
        store_.for_each_change_where(
            [notice](const LiveTopic &live) {
                return !notice || live.is_new || live.unfinished ||
                       notice->test(kp_hash(live.topic.c_str())) ||
                       notice->test(kp_hash(("/" + live.topic).c_str()));
            },
            [this](LiveTopic &live, bool) { print(live); });
        (void)output().flush();
        for (const Problem &problem : store_.take_problems())
            outcome_.note(problem);
    }

    void print(LiveTopic &live)
    {
        if (is_complete() || (is_first_look_ && options_.no_initial))
            return;
        auto snapshot = live.read();
        if (snapshot && snapshot->condition == Condition::corrupt)
            store_.report(value_problem(live.topic, *snapshot));
        if (!snapshot || snapshot->condition != Condition::value)
            return;
        const Row row{live.topic, std::move(*snapshot)};
        output().write(options_.is_record ? stored_record(row, now_us())
                                          : row_record(row, options_.format));
        ++printed_;
    }

    int code() const
    {
        if (is_complete())
            return kDone;
        if (options_.count > 0 && monotonic_us() >= end_ && outcome_.code() == kDone)
            return kTimeout;
        return outcome_.code() == kDone && printed_ == 0 ? kNothing : outcome_.code();
    }

    const WatchOptions &options_;
    LiveStore store_;
    Outcome outcome_;
    uint64_t end_ = 0;
    uint64_t printed_ = 0;
    bool is_first_look_ = true;
};

int run_watch(const WatchOptions &options, const Selection &selection)
{
    catch_stop_signals();
    return Watch(options, selection).run();
}

void add_following(Command &command, WatchOptions &options)
{
    command.add_number({"--rate",
                        "looks at the store in a second; " +
                            std::to_string(static_cast<int>(options.rate)) + " unless given",
                        "HZ"},
                       options.rate, 0.001, 10000.0);
    command.add_flag("--mesh", options.mesh,
                     "join the mesh and follow change notices instead of sampling");
    command.add_count({"-n,--count", "end after so many lines", "N"}, options.count);
    command.add_number({"-t,--timeout", "end after so long", "SEC"}, options.timeout, 0.0, 1e9);
    const Option none =
        command.add_flag("--no-initial", options.no_initial, "leave out the values that are there");
    command.add_flag("--initial-only", options.initial_only, "end after the values that are there")
        .excludes({none});
}

} // namespace

void add_record(Commands &commands)
{
    const auto options = std::make_shared<WatchOptions>();
    options->is_record = true;
    options->rate = 100;
    Command command =
        commands.add("record", "print each change as a JSON line that replay takes, until stopped",
                     on_selection(options, run_watch));
    add_selection(command, options->selection).required();
    add_following(command, *options);
}

void add_watch(Commands &commands)
{
    const auto options = std::make_shared<WatchOptions>();
    Command command =
        commands.add("watch", "print a line for each change, until stopped", [options] {
            options->format.with_meaning = !options->format.terse;
            return on_selection(options, run_watch)();
        });
    command.alias("mon");
    add_selection(command, options->selection).required();
    add_following(command, *options);
    command.on_flag(
        "-1,--once", [options] { options->count = 1; }, "end after one line");
    command.add_flag("-v,--verbose", options->format.verbose, "with type, quality, times and age");
    command.add_flag("-T,--terse", options->format.terse, "values without their topics");
    add_format_options(command, options->format);
}

} // namespace kp::tool
