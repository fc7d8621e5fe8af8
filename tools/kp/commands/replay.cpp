// kp replay: writes what record printed, at the pace at which it was seen.
#include "commands/commands.h"
#include "common/clock.h"
#include "common/text/text.h"
#include "options/record_options.h"
#include "running/line_reader.h"
#include "running/stop.h"
#include "writing/record_store.h"

#include <algorithm>
#include <memory>

namespace kp::tool {

namespace {

constexpr double kLongestWaitUs = 1e15; // some thirty years, whatever a line says

struct ReplayOptions : RecordOptions {
    double speed = 1;
};

// Readers take a value with an old timestamp for seen. So the times are moved: the timestamp is
// now, and the source time lies as long before it as it did in the record.
void move_to_now(Write &write)
{
    const auto written = std::exchange(write.timestamp, now_us());
    if (!written || !write.source_ts || *write.source_ts == 0)
        return;
    const uint64_t now = *write.timestamp;
    if (*write.source_ts > *written)
        *write.source_ts = now + (*write.source_ts - *written);
    else
        *write.source_ts = now - std::min(*written - *write.source_ts, now);
}

class Replay {
  public:
    Replay(const ReplayOptions &options, int fd) : options_(options), lines_(fd)
    {
    }

    int run()
    {
        while (!is_stopped_) {
            if (!lines_.has_line())
                notify(); // nobody knows when the next one comes
            const auto line = lines_.next();
            if (!line)
                break;
            Problem problem;
            if (!play(*line, problem))
                outcome_.note(lines_.at_line(problem));
        }
        if (const auto problem = lines_.problem(input_name(options_.file)))
            outcome_.note(*problem);
        notify();
        return outcome_.code();
    }

  private:
    bool play(const std::string &line, Problem &problem)
    {
        auto record = parse_stored_record(line, problem);
        if (!record)
            return false;
        if (record->seen && options_.speed > 0)
            await_turn(*record->seen);
        if (is_stopped_)
            return true;
        record->write.change_type = options_.force;
        move_to_now(record->write);
        return store_record(*record, sender_, problem);
    }

    void await_turn(uint64_t seen)
    {
        if (!start_)
            start_ = {seen, monotonic_us()};
        const auto passed = static_cast<double>(seen - std::min(seen, start_->seen));
        const uint64_t turn =
            start_->at + static_cast<uint64_t>(std::min(passed / options_.speed, kLongestWaitUs));
        if (turn <= monotonic_us())
            return;
        notify();
        is_stopped_ = !wait_until(turn);
    }

    void notify()
    {
        Problem problem;
        if (!sender_.send(static_cast<uint64_t>(options_.peer_wait * 1e6), problem))
            outcome_.note(problem);
    }

    struct Start {
        uint64_t seen; // of the first line
        uint64_t at;   // on the monotonic clock
    };

    const ReplayOptions &options_;
    LineReader lines_;
    NoticeSender sender_;
    Outcome outcome_;
    std::optional<Start> start_;
    bool is_stopped_ = false;
};

int run_replay(const ReplayOptions &options)
{
    catch_stop_signals();
    return run_on_input(options.file, [&options](int fd) { return Replay(options, fd).run(); });
}

} // namespace

void add_replay(Commands &commands)
{
    const auto options = std::make_shared<ReplayOptions>();
    Command command =
        commands.add("replay", "write what record printed, at the pace at which it was seen",
                     [options] { return run_replay(*options); });
    add_record_options(command, *options);
    command.add_number(
        {"--speed", "times as fast as recorded; 1 unless given, 0 without any wait", "X"},
        options->speed, 0.0, 1e6);
}

} // namespace kp::tool
