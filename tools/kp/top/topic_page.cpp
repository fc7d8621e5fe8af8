#include "top/topic_page.h"

#include "common/clock.h"
#include "common/dictionary/fact_lines.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <utility>

namespace kp::tool {

namespace {

constexpr uint64_t kUsersUs = 2 * kUsPerSecond;
constexpr std::size_t kHistoryColumns = 60;
constexpr std::size_t kLabelColumns = 11;

// The lines of a page of so many columns, each with a label.
class PageLines {
  public:
    explicit PageLines(std::size_t columns)
        : width_(columns > kLabelColumns + 1 ? columns - kLabelColumns : 1)
    {
    }

    void add(const char *label, const std::string &text)
    {
        lines_.push_back(padded(label, kLabelColumns) + text);
    }

    // Breaks the text where the columns end, never within a character.
    void add_broken(const char *label, std::string_view text)
    {
        std::string line;
        std::size_t used = 0;
        while (!text.empty()) {
            const std::string_view next = text.substr(0, next_code_point(text).bytes);
            const std::size_t needed = display_width(next);
            if (used > 0 && used + needed > width_) {
                add(std::exchange(label, ""), std::exchange(line, {}));
                used = 0;
            }
            line += next;
            used += needed;
            text.remove_prefix(next.size());
        }
        add(label, line);
    }

    std::vector<std::string> take()
    {
        return std::move(lines_);
    }

  private:
    const std::size_t width_;
    std::vector<std::string> lines_;
};

std::string time_and_age(uint64_t us, uint64_t now)
{
    return local_time(us) + "  (" + age_text(us, now) + ")";
}

void add_value(PageLines &page, const Snapshot &snapshot, const Meaning &meaning,
               const ValueHistory &history)
{
    page.add("type", snapshot.type_name() ? snapshot.type_name() : "-");
    page.add_broken("value", meant_value(meaning, shown_value(snapshot, ByteStyle::hex)));
    if (meaning.state)
        page.add("state", state_text(meaning));
    if (const std::string line = history.line(kHistoryColumns); !line.empty()) {
        page.add("", line);
        page.add("", history.range_text());
    }
}

void add_record(PageLines &page, const ShownTopic &shown, const std::string &rate)
{
    const Snapshot &snapshot = shown.snapshot;
    page.add("size", std::to_string(snapshot.size) + " of at most " + std::to_string(snapshot.max) +
                         " bytes");
    page.add("quality", std::to_string(snapshot.quality));
    if (snapshot.flags & kHasValue) {
        page.add("written", time_and_age(snapshot.last_write_ts, shown.read_at));
        page.add("source", time_and_age(snapshot.source_ts, shown.read_at));
    }
    page.add("rate", rate + " writes per second");
    page.add("counts", std::to_string(snapshot.providers) + " providers, " +
                           std::to_string(snapshot.consumers) + " consumers");
}

void add_facts(PageLines &page, const Facts &facts)
{
    const char *label = "dictionary";
    for (const FactLine &fact : fact_lines(facts))
        page.add_broken(std::exchange(label, ""),
                        fact.key + " " + fact.text + "  [" + place_text(fact.place) + "]");
}

} // namespace

std::vector<std::string> TopicPage::user_lines()
{
    std::vector<std::string> lines;
    TopicOpener opener;
    Problem problem;
    struct stat status;
    if (!opener.status(topic_, status, problem))
        return lines;
    const Mappers mappers = find_mappers(status.st_dev);
    for (const Mapper &mapper : mappers.of(file_id(status)))
        if (mapper.writable > 0) // a look, such as this program's, is no use
            lines.push_back(process_text(process_of(mapper.pid)));
    if (!mappers.unreadable.empty())
        lines.push_back(hidden_processes_text(mappers.unreadable.size()));
    return lines;
}

std::vector<std::string> TopicPage::lines(TopData &data, bool is_frozen, std::size_t columns)
{
    PageLines page(columns);
    page.add_broken("topic", escaped(topic_));
    const ShownTopic *shown = data.read(topic_, is_frozen);
    if (!shown) {
        page.add("", "is gone");
        return page.take();
    }
    if (monotonic_us() >= look_at_users_ && !is_frozen) {
        users_ = user_lines();
        look_at_users_ = monotonic_us() + kUsersUs;
    }
    const Meaning meaning = meaning_of(topic_, shown->snapshot);
    add_value(page, shown->snapshot, meaning, data.history(topic_));
    add_record(page, *shown, data.rate_text(topic_));
    add_facts(page, meaning.facts);
    const char *label = "open in";
    for (const std::string &user : users_)
        page.add(std::exchange(label, ""), user);
    return page.take();
}

} // namespace kp::tool
