// kp top: the live view. It samples as watch does and draws less often than it samples.
#include "commands/commands.h"
#include "common/clock.h"
#include "common/store/live_store.h"
#include "common/text/text.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/screen.h"
#include "running/stop.h"
#include "top/help.h"
#include "top/topic_list.h"
#include "top/topic_page.h"
#include "top/topic_rows.h"

#include <algorithm>
#include <array>
#include <memory>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr uint64_t kSampleUs = 100'000;
constexpr int kFirstRow = 2; // below the status and the titles

struct TopOptions {
    SelectionOptions selection;
    double delay = 0.5;
    double stale = 10;
};

class Top {
  public:
    Top(const TopOptions &options, const Selection &selection, Screen &screen)
        : options_(options), data_(selection), screen_(screen),
          rows_(data_, screen, static_cast<uint64_t>(options.stale * 1e6))
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
    void draw_help()
    {
        for (std::size_t index = 0; index < kTopHelp.size(); ++index)
            screen_.put(static_cast<int>(index) + kFirstRow, kTopHelp[index]);
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
        rows_.draw(kFirstRow - 1, list_.seen(page_rows()), list_.marked(), is_frozen_);
    }

    std::size_t page_rows() const
    {
        return static_cast<std::size_t>(std::max(screen_.rows() - kFirstRow, 1));
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
        list_.set(data_.sorted_topics(filter_, order_, is_reversed_), page_rows());
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
            line += ", " + std::to_string(list_.size()) + " match " + filter_;
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
            list_.go_to_start();
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
        const std::size_t cursor = list_.cursor();
        const bool was_marked =
            key == Key::escape || key == Key::resized ? false : list_.mark_cursor();
        switch (key) {
        case Key::up:
            list_.move_to(cursor - std::min<std::size_t>(cursor, was_marked ? 1 : 0), rows);
            break;
        case Key::down:
            list_.move_to(cursor + (was_marked ? 1 : 0), rows);
            break;
        case Key::page_up:
            list_.move_to(cursor - std::min(cursor, rows), rows);
            break;
        case Key::page_down:
            list_.move_to(cursor + rows, rows);
            break;
        case Key::first:
            list_.move_to(0, rows);
            break;
        case Key::last:
            list_.move_to(list_.size(), rows);
            break;
        case Key::enter:
            if (list_.size() > 0)
                page_.emplace(list_.chosen());
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
    TopicRows rows_;
    TopicList list_;
    std::optional<TopicPage> page_; // of one topic, in the place of all
    std::string filter_;
    std::string typed_;
    std::string mistake_; // the first in the dictionary's files
    Order order_ = Order::topic;
    std::size_t scroll_ = 0; // lines of the page above the first that is seen
    bool is_reversed_ = false;
    bool is_frozen_ = false;
    bool is_typing_ = false;
    bool shows_help_ = false;
    bool is_done_ = false;
    bool is_touched_ = false;
};

int run_top(const TopOptions &options, const Selection &selection)
{
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
    Command command = commands.add("top", "the live view", on_selection(options, run_top));
    add_selection(command, options->selection);
    command.add_number({"--delay", "seconds between drawings; 0.5 unless given", "SEC"},
                       options->delay, 0.05, 60.0);
    command.add_number({"--stale", "seconds after which a value is shown as stale", "SEC"},
                       options->stale, 0.0, 1e9);
}

} // namespace kp::tool
