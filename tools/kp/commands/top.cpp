// kp top: the live view. It samples as watch does and draws less often than it samples.
#include "commands/commands.h"
#include "common/clock.h"
#include "common/live_store.h"
#include "common/text.h"
#include "options/option_checks.h"
#include "options/selection_options.h"
#include "output/meaning.h"
#include "output/output.h"
#include "output/row_format.h"
#include "output/screen.h"
#include "running/stop.h"
#include "top/topic_page.h"

#include <algorithm>
#include <array>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr uint64_t kSampleUs = 100'000;
constexpr int kFirstRow = 2;              // below the status and the titles
constexpr std::size_t kOtherColumns = 47; // all but topic and value, with the gaps
constexpr std::size_t kStateColumns = 12; // more, where there is a dictionary
constexpr std::size_t kLeastColumns = 16; // of the topic
constexpr std::size_t kLeastValue = 10;
constexpr std::size_t kTrendColumns = 20; // of the last minute beside a short value

struct TopOptions {
    SelectionOptions selection;
    double delay = 0.5;
    double stale = 10;
};

// The columns that the width of the screen decides.
struct Widths {
    std::size_t topic = kLeastColumns;
    std::size_t value = kLeastValue;
};

class Top {
  public:
    Top(const TopOptions &options, const Selection &selection, Screen &screen)
        : options_(options), data_(selection), screen_(screen)
    {
        note_mistake(dictionary_problems());
    }

    int run()
    {
        uint64_t draw_at = 0;
        uint64_t sample_at = 0;
        while (!is_done_) {
            const uint64_t now = monotonic_us();
            if (now >= sample_at) {
                if (!is_frozen_)
                    data_.sample(now);
                sample_at = now + kSampleUs;
            }
            if (now >= draw_at || is_touched_) {
                // If there is no room the user has stopped the terminal with ^S.
                if (wait_writable(STDOUT_FILENO, now) == Readiness::ready)
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
    // Values get the room that is left beside names of usual length.
    Widths widths_for(std::size_t first, std::size_t end) const
    {
        const auto all = static_cast<std::size_t>(screen_.columns());
        const std::size_t others = kOtherColumns + (dictionary().is_empty() ? 0 : kStateColumns);
        const std::size_t shared = all > others ? all - others : 0;
        std::size_t longest = kLeastColumns;
        for (std::size_t index = first; index < end; ++index)
            longest = std::max(longest, display_width(escaped(topics_[index])));
        Widths widths;
        widths.topic = std::min(longest, std::max(kLeastColumns, shared * 3 / 5));
        widths.value = std::max(kLeastValue, shared - std::min(shared, widths.topic));
        return widths;
    }

    static std::string row_text(const std::array<std::string, 9> &cells, const Widths &widths)
    {
        const std::size_t state = dictionary().is_empty() ? 0 : kStateColumns - 1;
        const std::array<std::size_t, 9> columns = {
            widths.topic, 9, widths.value, state, 4, 8, 9, 5, 5};
        std::string line;
        for (std::size_t index = 0; index < cells.size(); ++index) {
            if (columns[index] == 0)
                continue;
            const std::string cell = shortened(cells[index], columns[index]);
            line += index == 0 ? "" : " ";
            line += index < 4 ? padded(cell, columns[index]) : padded_left(cell, columns[index]);
        }
        return line;
    }

    // The value, and beside a short one what it was in the last minute.
    std::string value_cell(const std::string &topic, const std::string &value,
                           const Widths &widths) const
    {
        const std::size_t left = widths.value - std::min(widths.value, display_width(value) + 1);
        if (left < kTrendColumns)
            return value;
        return padded(value, widths.value - kTrendColumns) +
               padded_left(data_.history(topic).line(kTrendColumns), kTrendColumns);
    }

    static Style style_of(ValueState state)
    {
        switch (state) {
        case ValueState::lowlow:
        case ValueState::highhigh:
            return Style::bad;
        case ValueState::bad_quality:
        case ValueState::low:
        case ValueState::high:
            return Style::warning;
        case ValueState::stale:
            return Style::faint;
        case ValueState::ok:
            break;
        }
        return Style::plain;
    }

    Style style_of(const ShownTopic &shown, const Meaning &meaning) const
    {
        const Snapshot &snapshot = shown.snapshot;
        const auto stale_us = static_cast<uint64_t>(options_.stale * 1e6);
        if (snapshot.condition == Condition::busy || snapshot.condition == Condition::corrupt)
            return Style::bad;
        if (snapshot.condition != Condition::value)
            return Style::faint;
        if (meaning.state && *meaning.state != ValueState::ok)
            return style_of(*meaning.state);
        if (snapshot.quality == KP_QUALITY_NONE || snapshot.providers > 1)
            return Style::warning;
        if (meaning.facts.stale_s)
            return Style::plain;
        return snapshot.last_write_ts + stale_us < shown.read_at ? Style::faint : Style::plain;
    }

    void draw_topic(int row, std::size_t index, const Widths &widths)
    {
        const std::string &topic = topics_[index];
        const ShownTopic *shown = data_.read(topic, is_frozen_);
        if (!shown)
            return;
        const Snapshot &snapshot = shown->snapshot;
        const Meaning meaning = meaning_of(topic, snapshot);
        const std::string value = meant_value(meaning, shown_value(snapshot, ByteStyle::hex));
        const bool has_value = snapshot.flags & kHasValue;
        screen_.put(row,
                    row_text({escaped(topic), snapshot.type_name() ? snapshot.type_name() : "-",
                              value_cell(topic, value, widths), state_text(meaning),
                              std::to_string(snapshot.quality),
                              has_value ? age_text(snapshot.last_write_ts, shown->read_at) : "-",
                              data_.rate_text(topic), std::to_string(snapshot.providers),
                              std::to_string(snapshot.consumers)},
                             widths),
                    index == cursor_ && has_cursor_ ? Style::reverse : style_of(*shown, meaning));
    }

    void draw_help()
    {
        const std::array<const char *, 11> lines = {
            "q Esc F10   quit",
            "arrows, PgUp PgDn Home End   move the cursor",
            "Enter       the whole value of a topic, its last minute, and who has it open; and "
            "back",
            "s           sort by the next of topic, rate, age, size, quality",
            "r           reverse the order",
            "/           filter by a pattern, or by a part of the name; empty shows all",
            "space       freeze and go on",
            "h ?         this help",
            "",
            "red: cannot be read   yellow: quality 0 or two providers   dim: stale or no value",
            "with a dictionary also   red: lowlow, highhigh   yellow: low, high, bad quality"};
        for (std::size_t index = 0; index < lines.size(); ++index)
            screen_.put(static_cast<int>(index) + kFirstRow, lines[index]);
    }

    void draw_page()
    {
        const auto lines =
            page_->lines(data_, is_frozen_, static_cast<std::size_t>(screen_.columns()));
        const std::size_t rows = page_rows();
        scroll_ = std::min(scroll_, lines.size() - std::min(lines.size(), rows));
        for (std::size_t row = 0; row < rows && scroll_ + row < lines.size(); ++row)
            screen_.put(static_cast<int>(row) + kFirstRow, lines[scroll_ + row]);
    }

    void draw_topics()
    {
        const std::size_t rows = page_rows();
        const std::size_t end = std::min(topics_.size(), first_ + rows);
        const Widths widths = widths_for(first_, end);
        screen_.put(
            1,
            row_text({"TOPIC", "TYPE", "VALUE", "STATE", "QUAL", "AGE", "RATE", "PROV", "CONS"},
                     widths),
            Style::reverse);
        for (std::size_t index = first_; index < end; ++index)
            draw_topic(static_cast<int>(index - first_) + kFirstRow, index, widths);
    }

    std::size_t page_rows() const
    {
        return static_cast<std::size_t>(std::max(screen_.rows() - kFirstRow, 1));
    }

    // The cursor stays on its topic while the order changes, and in its row when that is gone.
    void arrange()
    {
        topics_ = data_.sorted_topics(filter_, order_, is_reversed_);
        const auto chosen = std::ranges::find(topics_, chosen_);
        if (has_cursor_ && chosen != topics_.end())
            cursor_ = static_cast<std::size_t>(chosen - topics_.begin());
        put_cursor(cursor_);
    }

    void put_cursor(std::size_t index)
    {
        const std::size_t rows = page_rows();
        cursor_ = topics_.empty() ? 0 : std::min(index, topics_.size() - 1);
        chosen_ = topics_.empty() ? "" : topics_[cursor_];
        if (cursor_ < first_)
            first_ = cursor_;
        if (cursor_ >= first_ + rows)
            first_ = cursor_ + 1 - rows;
        first_ = std::min(first_, topics_.size() - std::min(topics_.size(), rows));
    }

    // A mistake is shown until the files are without one.
    void follow_dictionary()
    {
        const Reread reread = refresh_dictionary();
        if (reread.is_new)
            mistake_.clear();
        note_mistake(reread.mistakes);
    }

    void note_mistake(const std::vector<DictionaryProblem> &mistakes)
    {
        if (!mistakes.empty())
            mistake_ = place_text(mistakes[0].place) + ": " + mistakes[0].text;
    }

    void draw()
    {
        follow_dictionary();
        arrange();
        screen_.clear();
        screen_.put(0, status_line(), Style::title);
        if (shows_help_)
            draw_help();
        else if (page_)
            draw_page();
        else
            draw_topics();
        screen_.show();
    }

    std::string status_line() const
    {
        if (is_typing_)
            return "filter: " + typed_ + "_";
        std::string line = "kp top  " + std::to_string(data_.topic_count()) + " topics";
        if (!filter_.empty())
            line += ", " + std::to_string(topics_.size()) + " match " + filter_;
        if (data_.refused_count() > 0)
            line += ", " + std::to_string(data_.refused_count()) + " cannot be read";
        line += "  by " + std::string(kOrderNames[static_cast<std::size_t>(order_)]);
        line += is_reversed_ ? ", reversed" : "";
        line += is_frozen_ ? "  FROZEN" : "";
        return line + (mistake_.empty() ? "  (h: help)" : "  " + mistake_);
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
        else if (page_)
            take_on_page(input.key);
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
            page_.reset();
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

    void take_on_page(Key key)
    {
        const std::size_t rows = page_rows();
        if (key == Key::enter || key == Key::escape)
            page_.reset();
        else if (key == Key::up || key == Key::page_up)
            scroll_ -= std::min(scroll_, key == Key::up ? 1 : rows);
        else if (key == Key::down || key == Key::page_down)
            scroll_ += key == Key::down ? 1 : rows;
        else if (key == Key::first)
            scroll_ = 0;
    }

    // The first key shows the cursor where it stands; before, nothing is marked.
    void take_movement(Key key)
    {
        const std::size_t rows = page_rows();
        const bool was_shown = std::exchange(
            has_cursor_, key != Key::escape && key != Key::resized ? true : has_cursor_);
        switch (key) {
        case Key::up:
            put_cursor(cursor_ - std::min<std::size_t>(cursor_, was_shown ? 1 : 0));
            break;
        case Key::down:
            put_cursor(cursor_ + (was_shown ? 1 : 0));
            break;
        case Key::page_up:
            put_cursor(cursor_ - std::min(cursor_, rows));
            break;
        case Key::page_down:
            put_cursor(cursor_ + rows);
            break;
        case Key::first:
            put_cursor(0);
            break;
        case Key::last:
            put_cursor(topics_.size());
            break;
        case Key::enter:
            if (!topics_.empty())
                page_.emplace(topics_[cursor_]);
            scroll_ = 0;
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
    TopData data_;
    Screen &screen_;
    std::vector<std::string> topics_; // as they are drawn
    std::optional<TopicPage> page_;   // of one of them, in the place of all
    std::string filter_;
    std::string typed_;
    std::string chosen_;  // where the cursor is
    std::string mistake_; // the first in the dictionary's files
    Order order_ = Order::topic;
    std::size_t cursor_ = 0;
    std::size_t first_ = 0;  // in the first row
    std::size_t scroll_ = 0; // lines of the page above the first that is seen
    bool has_cursor_ = false;
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
