// kp top: the live view. It samples as watch does and draws less often than it samples.
#include "checks.h"
#include "commands.h"
#include "common/live_store.h"
#include "common/text.h"
#include "row_format.h"
#include "screen.h"
#include "selection_options.h"
#include "stop.h"

#include <array>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr uint64_t kSampleUs = 100'000;
constexpr double kRateMemory = 0.7;       // of the last rate in the new one, each second
constexpr std::size_t kFixedColumns = 70; // all but the topic

struct TopOptions {
    SelectionOptions selection;
    double delay = 0.5;
    double stale = 10;
};

enum class Order { topic, rate, age, size, quality };

constexpr std::array<const char *, 5> kOrderNames = {"topic", "rate", "age", "size", "quality"};

struct Rate {
    unsigned writes = 0; // in the second that runs
    double per_second = 0;
    bool has_run = false;
};

class Top {
  public:
    Top(const TopOptions &options, const Selection &selection, Screen &screen)
        : options_(options), store_(selection), screen_(screen)
    {
    }

    int run()
    {
        uint64_t draw_at = 0;
        uint64_t sample_at = 0;
        second_at_ = monotonic_us();
        while (!is_done_) {
            const uint64_t now = monotonic_us();
            if (now >= sample_at) {
                if (!is_frozen_)
                    sample(now);
                sample_at = now + kSampleUs;
            }
            if (now >= draw_at || is_touched_) {
                if (wait_writable(STDOUT_FILENO, now) == Readiness::ready) // else it was stopped by ^S
                    draw();
                is_touched_ = false;
                draw_at = now + static_cast<uint64_t>(options_.delay * 1e6);
            }
            if (!wait_readable(STDIN_FILENO, std::min(sample_at, draw_at)))
                break;
            for (Input input = screen_.next_input(); input.key != Key::none;
                 input = screen_.next_input())
                take(input);
        }
        return kDone;
    }

  private:
    void sample(uint64_t now)
    {
        store_.refresh();
        (void)store_.take_problems(); // there is room for their number only; kp list tells them
        store_.for_each_change([this](const LiveTopic &live, bool is_new) {
            Rate &rate = rates_[live.topic];
            rate.writes += !is_new;
        });
        shown_at_ = now_us();
        if (now < second_at_ + kUsPerSecond)
            return;
        const double seconds = static_cast<double>(now - second_at_) / 1e6;
        store_.forget_removed(rates_);
        store_.forget_removed(shown_);
        for (auto &[topic, rate] : rates_) {
            const double last = static_cast<double>(std::exchange(rate.writes, 0U)) / seconds;
            rate.per_second =
                rate.has_run ? rate.per_second * kRateMemory + last * (1 - kRateMemory) : last;
            rate.has_run = true;
        }
        second_at_ = now;
    }

    bool passes(const std::string &topic) const
    {
        if (filter_.empty())
            return true;
        return is_pattern(filter_) ? Pattern(filter_).covers(topic)
                                   : topic.find(filter_) != std::string::npos;
    }

    double rate_of(const std::string &topic) const
    {
        const auto found = rates_.find(topic);
        return found == rates_.end() ? 0 : found->second.per_second;
    }

    bool comes_before(const LiveTopic &a, const LiveTopic &b) const
    {
        switch (order_) {
        case Order::rate:
            return rate_of(a.topic) > rate_of(b.topic);
        case Order::age:
            return a.seen.last_write_ts > b.seen.last_write_ts;
        case Order::size:
            return a.seen.size > b.seen.size;
        case Order::quality:
            return a.seen.quality < b.seen.quality;
        default:
            return a.topic < b.topic;
        }
    }

    std::vector<const LiveTopic *> sorted_topics() const
    {
        std::vector<const LiveTopic *> topics;
        for (const auto &[name, live] : store_.topics())
            if (passes(name))
                topics.push_back(&live);
        if (order_ != Order::topic)
            std::stable_sort(topics.begin(), topics.end(),
                             [this](const auto *a, const auto *b) { return comes_before(*a, *b); });
        if (is_reversed_)
            std::reverse(topics.begin(), topics.end());
        return topics;
    }

    std::string row_text(const std::array<std::string, 8> &cells) const
    {
        const auto width = static_cast<std::size_t>(screen_.columns());
        const std::size_t topic_columns = width > kFixedColumns + 16 ? width - kFixedColumns : 16;
        constexpr std::array<std::size_t, 8> columns = {0, 9, 22, 4, 8, 9, 5, 5};
        std::string line = padded(shortened(cells[0], topic_columns), topic_columns);
        for (std::size_t index = 1; index < cells.size(); ++index) {
            const std::string cell = shortened(cells[index], columns[index]);
            line += ' ';
            line += index < 3 ? padded(cell, columns[index]) : padded_left(cell, columns[index]);
        }
        return line;
    }

    Style style_of(const Snapshot &snapshot) const
    {
        const auto stale_us = static_cast<uint64_t>(options_.stale * 1e6);
        if (snapshot.condition == Condition::busy || snapshot.condition == Condition::corrupt)
            return Style::bad;
        if (snapshot.condition != Condition::value)
            return Style::faint;
        if (snapshot.quality == KP_QUALITY_NONE || snapshot.providers > 1)
            return Style::warning;
        return snapshot.last_write_ts + stale_us < shown_at_ ? Style::faint : Style::plain;
    }

    void draw_topic(int row, const LiveTopic &live)
    {
        // Frozen rows stay as they are, so what was read last is kept.
        auto &shown = shown_[live.topic];
        if (!is_frozen_ || shown.last_write_ts == 0)
            shown = live.reader.read().value_or(Snapshot());
        const double rate = rate_of(live.topic);
        std::array<char, 32> rate_text{};
        (void)std::snprintf(rate_text.data(), rate_text.size(), "%.1f", rate);
        const bool has_value = shown.flags & kHasValue;
        screen_.put(
            row,
            row_text({escaped(live.topic), shown.type_name() ? shown.type_name() : "-",
                      shown_value(shown, ByteStyle::hex), std::to_string(shown.quality),
                      has_value ? age_text(shown.last_write_ts, shown_at_) : "-", rate_text.data(),
                      std::to_string(shown.providers), std::to_string(shown.consumers)}),
            style_of(shown));
    }

    void draw_help()
    {
        const std::array<const char *, 9> lines = {
            "q Esc F10   quit",
            "arrows, PgUp PgDn Home End   move",
            "s           sort by the next of topic, rate, age, size, quality",
            "r           reverse the order",
            "/           filter by a pattern, or by a part of the name; empty shows all",
            "space       freeze and go on",
            "h ?         this help",
            "",
            "red: cannot be read   yellow: quality 0 or two providers   dim: stale or no value"};
        for (std::size_t index = 0; index < lines.size(); ++index)
            screen_.put(static_cast<int>(index) + 2, lines[index]);
    }

    void draw()
    {
        const auto topics = sorted_topics();
        page_ = std::max(screen_.rows() - 2, 1);
        first_ = std::clamp(first_, 0, std::max(static_cast<int>(topics.size()) - page_, 0));
        screen_.clear();
        screen_.put(0, status_line(topics.size()), Style::title);
        if (shows_help_) {
            draw_help();
        } else {
            screen_.put(1,
                        row_text({"TOPIC", "TYPE", "VALUE", "QUAL", "AGE", "RATE", "PROV", "CONS"}),
                        Style::reverse);
            const auto end = std::min(topics.size(), static_cast<std::size_t>(first_ + page_));
            for (auto index = static_cast<std::size_t>(first_); index < end; ++index)
                draw_topic(static_cast<int>(index) - first_ + 2, *topics[index]);
        }
        screen_.show();
    }

    std::string status_line(std::size_t shown) const
    {
        if (is_typing_)
            return "filter: " + typed_ + "_";
        std::string line = "kp top  " + std::to_string(store_.topics().size()) + " topics";
        if (!filter_.empty())
            line += ", " + std::to_string(shown) + " match " + filter_;
        if (store_.refused_count() > 0)
            line += ", " + std::to_string(store_.refused_count()) + " cannot be read";
        line += "  by " + std::string(kOrderNames[static_cast<std::size_t>(order_)]);
        line += is_reversed_ ? ", reversed" : "";
        line += is_frozen_ ? "  FROZEN" : "";
        return line + "  (h: help)";
    }

    void take(const Input &input)
    {
        is_touched_ = true;
        if (input.key == Key::quit)
            is_done_ = true;
        else if (is_typing_)
            take_typed(input);
        else if (input.key == Key::character)
            take_character(input.character);
        else
            take_movement(input.key);
    }

    void take_typed(const Input &input)
    {
        if (input.key == Key::enter) {
            filter_ = typed_;
            is_typing_ = false;
            first_ = 0;
        } else if (input.key == Key::escape) {
            is_typing_ = false;
        } else if (input.key == Key::backspace && !typed_.empty()) {
            typed_.pop_back();
        } else if (input.key == Key::character && input.character) {
            typed_ += input.character;
        }
    }

    void take_character(char character)
    {
        switch (character) {
        case 'q':
        case 'Q':
            is_done_ = true;
            break;
        case 's':
            order_ =
                static_cast<Order>((static_cast<std::size_t>(order_) + 1) % kOrderNames.size());
            break;
        case 'r':
            is_reversed_ = !is_reversed_;
            break;
        case ' ':
            is_frozen_ = !is_frozen_;
            break;
        case '/':
            is_typing_ = true;
            typed_.clear();
            break;
        case 'h':
        case '?':
            shows_help_ = !shows_help_;
            break;
        default:
            break;
        }
    }

    void take_movement(Key key)
    {
        const int end = static_cast<int>(store_.topics().size());
        switch (key) {
        case Key::up:
            --first_;
            break;
        case Key::down:
            ++first_;
            break;
        case Key::page_up:
            first_ -= page_;
            break;
        case Key::page_down:
            first_ += page_;
            break;
        case Key::first:
            first_ = 0;
            break;
        case Key::last:
            first_ = end;
            break;
        case Key::escape:
            is_done_ = !shows_help_;
            shows_help_ = false;
            break;
        default:
            break;
        }
    }

    const TopOptions &options_;
    LiveStore store_;
    Screen &screen_;
    std::map<std::string, Rate> rates_;
    std::map<std::string, Snapshot> shown_;
    std::string filter_;
    std::string typed_;
    Order order_ = Order::topic;
    uint64_t second_at_ = 0;
    uint64_t shown_at_ = 0;
    int first_ = 0;
    int page_ = 1;
    bool is_reversed_ = false;
    bool is_frozen_ = false;
    bool is_typing_ = false;
    bool shows_help_ = false;
    bool is_done_ = false;
    bool is_touched_ = false;
};

int run_top(const TopOptions &options)
{
    Problem problem;
    Selection selection;
    if (!selection.set(options.selection.wanted, options.selection.excluded, problem))
        return complain(problem);
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO))
        return complain(Problem{kUsage, "top needs a terminal; watch serves pipes"});
    catch_stop_signals();
    Screen screen(uses_colors());
    if (!screen.is_ready())
        return complain(Problem{kUsage, "this terminal (TERM) is not known"});
    return Top(options, selection, screen).run();
}

} // namespace

void add_top(Commands &commands)
{
    const auto options = std::make_shared<TopOptions>();
    CLI::App &command =
        commands.add("top", "the live view", [options] { return run_top(*options); });
    add_selection(command, options->selection);
    command.add_option("--delay", options->delay, "seconds between drawings; 0.5 unless given")
        ->type_name("SEC")
        ->check(in_range(0.05, 60.0));
    command.add_option("--stale", options->stale, "seconds after which a value is shown as stale")
        ->type_name("SEC")
        ->check(in_range(0.0, 1e9));
}

} // namespace kp::tool
