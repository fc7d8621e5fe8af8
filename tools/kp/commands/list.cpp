// kp list: every topic of the store, at any depth.
#include "commands/commands.h"
#include "common/text/text.h"
#include "looking/noted_listing.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr std::size_t kValueColumns = 40;
constexpr std::size_t kLeastColumns = 12; // of a name or value

struct ListOptions {
    SelectionOptions selection;
    FormatOptions format;
    bool long_form = false;
    bool tree = false;
};

// The columns, texts to the left and numbers to the right.
struct Column {
    const char *title;
    bool is_text;
};
constexpr std::array<Column, 8> kColumns = {{{"TOPIC", true},
                                             {"TYPE", true},
                                             {"VALUE", true},
                                             {"STATE", true},
                                             {"QUALITY", false},
                                             {"AGE", false},
                                             {"PROVIDERS", false},
                                             {"CONSUMERS", false}}};
constexpr std::size_t kTopicColumn = 0;
constexpr std::size_t kValueColumn = 2;
constexpr std::size_t kStateColumn = 3; // only where there is a dictionary

using Cells = std::array<std::string, kColumns.size()>;
using Widths = std::array<std::size_t, kColumns.size()>; // 0: the column is not shown

struct TableRow {
    Cells cells;
    Meaning meaning;
};

TableRow table_row(const Row &row, const ListOptions &options)
{
    const Snapshot &snapshot = row.snapshot;
    const bool has_value = snapshot.flags & kHasValue;
    const Meaning meaning = meaning_of(row.topic, snapshot);
    const std::string value = shortened(shown_value(snapshot, options.format.bytes), kValueColumns);
    return {{escaped(row.topic), snapshot.type_name() ? snapshot.type_name() : "-",
             meant_value(meaning, value), state_text(meaning), std::to_string(snapshot.quality),
             has_value ? age_text(snapshot.last_write_ts, now_us()) : "-",
             std::to_string(snapshot.providers), std::to_string(snapshot.consumers)},
            meaning};
}

// Rows that want attention stand out: broken ones, then bad values and doubled providers.
std::string painted(const std::string &line, const Snapshot &snapshot, const Meaning &meaning)
{
    switch (snapshot.condition) {
    case Condition::busy:
    case Condition::corrupt:
        return colored(line, Color::red);
    case Condition::value:
        if (meaning.state && *meaning.state != ValueState::ok)
            return colored_by_state(line, meaning);
        return snapshot.quality == KP_QUALITY_NONE || snapshot.providers > 1
                   ? colored(line, Color::yellow)
                   : line;
    default:
        return colored(line, Color::dim);
    }
}

std::string table_line(const Cells &cells, const Widths &widths)
{
    std::string line;
    for (std::size_t column = 0; column < cells.size(); ++column) {
        const std::size_t width = widths[column];
        if (width == 0)
            continue;
        line += column == 0 ? "" : "  ";
        line += kColumns[column].is_text ? padded(shortened(cells[column], width), width)
                                         : padded_left(cells[column], width);
    }
    return line;
}

// Takes from the values and then from the names what a terminal has no room for, so that each row
// stays one line. Files and pipes get all.
void fit_to_terminal(Widths &widths)
{
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 ||
        size.ws_col == 0)
        return;
    const auto shown = widths.size() - static_cast<std::size_t>(std::ranges::count(widths, 0U));
    const std::size_t all = std::accumulate(widths.begin(), widths.end(), 2 * (shown - 1));
    std::size_t excess = all - std::min<std::size_t>(all, size.ws_col);
    for (const std::size_t column : {kValueColumn, kTopicColumn}) {
        const std::size_t taken =
            std::min(excess, widths[column] - std::min(widths[column], kLeastColumns));
        widths[column] -= taken;
        excess -= taken;
    }
}

void print_table(const std::vector<Row> &rows, const ListOptions &options)
{
    Cells titles;
    std::ranges::transform(kColumns, titles.begin(), &Column::title);
    std::vector<TableRow> lines;
    lines.reserve(rows.size());
    for (const Row &row : rows)
        lines.push_back(table_row(row, options));
    Widths widths{};
    std::ranges::transform(titles, widths.begin(), display_width);
    for (const TableRow &line : lines)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], display_width(line.cells[column]));
    if (dictionary().is_empty())
        widths[kStateColumn] = 0;
    fit_to_terminal(widths);
    output().line(colored(table_line(titles, widths), Color::bold));
    for (std::size_t index = 0; index < rows.size(); ++index)
        output().line(painted(table_line(lines[index].cells, widths), rows[index].snapshot,
                              lines[index].meaning));
}

std::size_t common_levels(const std::vector<std::string_view> &a,
                          const std::vector<std::string_view> &b)
{
    const auto end = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    return static_cast<std::size_t>(end.first - a.begin());
}

void print_tree(const std::vector<StoreFile> &files)
{
    std::vector<std::string_view> last;
    for (const StoreFile &file : files) {
        const auto levels = split_levels(file.topic);
        for (std::size_t depth = common_levels(levels, last); depth < levels.size(); ++depth)
            output().line(std::string(depth * 2, ' ') + escaped(levels[depth]) +
                          (depth + 1 < levels.size() ? "/" : ""));
        last = levels;
    }
}

// Takes out what is no segment and says so.
void keep_segments(StoreListing &listing, Outcome &outcome)
{
    TopicOpener opener;
    std::erase_if(listing.files, [&](const StoreFile &file) {
        struct stat status;
        Problem problem;
        const bool good = opener.status(file.topic, status, problem) &&
                          is_segment_file(status, file.topic, problem);
        if (!good && problem.kind != kNothing) // one may be removed at any time
            outcome.note(problem);
        return !good;
    });
}

std::vector<Row> read_rows(const StoreListing &listing, Outcome &outcome)
{
    TopicOpener opener;
    std::vector<Row> rows;
    for (const StoreFile &file : listing.files) {
        Problem problem;
        auto snapshot = read_topic(opener, file.topic, problem);
        if (snapshot && snapshot->has_broken_value())
            outcome.note(value_problem(file.topic, *snapshot));
        if (snapshot)
            rows.push_back({file.topic, std::move(*snapshot)});
        else if (problem.kind != kNothing)
            outcome.note(problem);
    }
    return rows;
}

int run_list(const ListOptions &options, const Selection &selection)
{
    Outcome outcome;
    StoreListing listing = list_store(selection, outcome);
    const bool with_values = options.long_form || options.format.format != Format::plain ||
                             !options.format.field_template.empty();
    if (with_values && !options.tree) {
        const auto rows = read_rows(listing, outcome);
        if (rows.empty())
            outcome.note(kNothing);
        else if (options.format.format == Format::plain && options.format.field_template.empty())
            print_table(rows, options);
        else
            print_records(rows, options.format);
        return outcome.code();
    }
    keep_segments(listing, outcome);
    if (options.tree)
        print_tree(listing.files);
    else
        for (const StoreFile &file : listing.files)
            output().line(escaped(file.topic));
    if (listing.files.empty())
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_list(Commands &commands)
{
    const auto options = std::make_shared<ListOptions>();
    Command command =
        commands.add("list", "list topics, at any depth, sorted", on_selection(options, run_list));
    command.alias("ls");
    const Option long_form =
        command.add_flag("-l,--long", options->long_form,
                         "with type, value, state, quality, age, providers and consumers");
    add_selection(command, options->selection);
    add_format_options(command, options->format);
    command.add_flag("--tree", options->tree, "as a tree of levels")
        .excludes({long_form, command.option("--json"), command.option("--format"),
                   command.option("--template")});
}

} // namespace kp::tool
