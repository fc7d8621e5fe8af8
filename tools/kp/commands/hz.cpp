// kp hz: how often topics are written, and how evenly.
#include "commands/commands.h"
#include "common/store/live_store.h"
#include "common/text/text.h"
#include "looking/intervals.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/row_format.h"
#include "running/standard_stream.h"
#include "running/stop.h"

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

namespace kp::tool {

namespace {

constexpr uint64_t kRefreshUs = 200'000; // looks for new topics

struct HzOptions {
    SelectionOptions selection;
    double window = 1;
    double rate = 1000;
    double timeout = 0;
    uint64_t count = 0;
    bool json = false;
};

struct Rate {
    Intervals intervals;
    uint64_t writes = 0;
    uint64_t bytes = 0;
};

class Meter {
  public:
    Meter(const HzOptions &options, const Selection &selection)
        : options_(options), store_(selection)
    {
    }

    int run()
    {
        const auto window = static_cast<uint64_t>(options_.window * 1e6);
        const uint64_t start = monotonic_us();
        const uint64_t end = options_.timeout > 0
                                 ? start + static_cast<uint64_t>(options_.timeout * 1e6)
                                 : std::numeric_limits<uint64_t>::max();
        StandardStream::set_deadline(end);
        look(); // what was written before is no interval
        rates_.clear();
        uint64_t reports = 0;
        while (output().is_open() && (options_.count == 0 || reports < options_.count) &&
               monotonic_us() < end) {
            if (!measure(std::min(monotonic_us() + window, end)))
                break;
            report();
            ++reports;
        }
        if (options_.count > 0 && reports < options_.count && stop_signal() == 0)
            return kTimeout;
        return outcome_.code() == kDone && !has_reported_ ? kNothing : outcome_.code();
    }

  private:
    // Samples until `until`; false when told to stop.
    bool measure(uint64_t until)
    {
        const auto step = static_cast<uint64_t>(1e6 / options_.rate);
        measured_since_ = monotonic_us();
        samples_ = 0;
        uint64_t refresh_at = measured_since_;
        for (uint64_t next = measured_since_; next < until;) {
            next = std::max(next + step, monotonic_us());
            if (!wait_until(std::min(next, until)))
                return false;
            if (next >= refresh_at) {
                refresh();
                refresh_at = next + kRefreshUs;
            }
            look();
            ++samples_;
        }
        return true;
    }

    void refresh()
    {
        store_.refresh();
        for (const Problem &problem : store_.take_problems())
            outcome_.note(problem);
    }

    void look()
    {
        if (store_.topics().empty())
            refresh();
        store_.for_each_change([this](const LiveTopic &live, bool is_new) {
            const uint64_t before = std::exchange(last_ts_[live.topic], live.seen.last_write_ts);
            if (is_new)
                return;
            Rate &rate = rates_[live.topic];
            ++rate.writes;
            rate.bytes += live.seen.size;
            if (live.seen.last_write_ts > before && before != 0)
                rate.intervals.add(live.seen.last_write_ts - before);
        });
    }

    void report()
    {
        const double seconds = static_cast<double>(monotonic_us() - measured_since_) / 1e6;
        if (!options_.json)
            print_line({"TOPIC", "WRITES", "HZ", "MIN", "MEAN", "MAX", "JITTER", "BYTES/S"});
        for (const auto &[topic, rate] : rates_) {
            has_reported_ = true;
            if (options_.json)
                print_json(topic, rate, seconds);
            else
                print_row(topic, rate, seconds);
        }
        rates_.clear();
        store_.forget_removed(last_ts_);
        (void)output().flush();
    }

    // A topic that has changed at more than half of the looks was surely written more often than it
    // was seen.
    bool is_lower_bound(const Rate &rate) const
    {
        return rate.writes * 2 > samples_;
    }

    static double hertz(const Rate &rate, double seconds)
    {
        const double mean = rate.intervals.mean_us();
        return mean > 0 ? 1e6 / mean : static_cast<double>(rate.writes) / seconds;
    }

    static std::string number(double value)
    {
        std::array<char, 32> out{};
        (void)std::snprintf(out.data(), out.size(), "%.*f", value < 100 ? 2 : 0, value);
        return out.data();
    }

    void print_line(const std::array<std::string, 8> &cells) const
    {
        constexpr std::size_t topic_columns = 32;
        std::string line = padded(cells[0], topic_columns);
        for (std::size_t column = 1; column < cells.size(); ++column)
            line += padded_left(cells[column], 10);
        output().line(line);
    }

    void print_row(const std::string &topic, const Rate &rate, double seconds) const
    {
        const auto span = [&rate](double us) {
            return rate.intervals.count() > 0 ? duration_text(static_cast<uint64_t>(us)) : "-";
        };
        print_line(
            {escaped(topic), std::to_string(rate.writes),
             (is_lower_bound(rate) ? ">=" : "") + number(hertz(rate, seconds)),
             span(static_cast<double>(rate.intervals.least_us())), span(rate.intervals.mean_us()),
             span(static_cast<double>(rate.intervals.most_us())), span(rate.intervals.jitter_us()),
             number(static_cast<double>(rate.bytes) / seconds)});
    }

    void print_json(const std::string &topic, const Rate &rate, double seconds) const
    {
        nlohmann::ordered_json object;
        object["topic"] = topic;
        object["writes"] = rate.writes;
        object["hz"] = hertz(rate, seconds);
        object["lower_bound"] = is_lower_bound(rate);
        object["min_us"] = rate.intervals.least_us();
        object["mean_us"] = rate.intervals.mean_us();
        object["max_us"] = rate.intervals.most_us();
        object["jitter_us"] = rate.intervals.jitter_us();
        object["bytes_per_second"] = static_cast<double>(rate.bytes) / seconds;
        output().write(json_line(object));
    }

    const HzOptions &options_;
    LiveStore store_;
    Outcome outcome_;
    std::map<std::string, Rate> rates_;
    std::map<std::string, uint64_t> last_ts_;
    uint64_t measured_since_ = 0;
    uint64_t samples_ = 0;
    bool has_reported_ = false;
};

int run_hz(const HzOptions &options, const Selection &selection)
{
    catch_stop_signals();
    return Meter(options, selection).run();
}

} // namespace

void add_hz(Commands &commands)
{
    const auto options = std::make_shared<HzOptions>();
    Command command = commands.add("hz", "how often topics are written, and how evenly",
                                   on_selection(options, run_hz));
    add_selection(command, options->selection).required();
    command.add_number({"-w,--window", "seconds in one report; 1 unless given", "SEC"},
                       options->window, 0.01, 3600.0);
    command.add_number({"--rate", "looks in a second; 1000 unless given", "HZ"}, options->rate, 1.0,
                       100000.0);
    command.add_count({"-n,--count", "end after so many reports", "N"}, options->count);
    command.on_flag(
        "-1,--once", [options] { options->count = 1; }, "end after one report");
    command.add_number({"-t,--timeout", "end after so long", "SEC"}, options->timeout, 0.0, 1e9);
    command.add_flag("-j,--json", options->json, "one JSON object a topic and report");
}

} // namespace kp::tool
