#include "top/topic_page.h"

#include "common/clock.h"
#include "common/dictionary/fact_lines.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

namespace kp::tool {

namespace {

constexpr uint64_t kUsersUs = 2 * kUsPerSecond;
constexpr std::size_t kHistoryColumns = 60;
constexpr std::size_t kLabelColumns = 11;

std::string labelled(const char *label, const std::string &text)
{
    return padded(label, kLabelColumns) + text;
}

// Broken where the columns end, never within a character.
void add_broken(std::vector<std::string> &lines, const char *label, std::string_view text,
                std::size_t columns)
{
    const std::size_t width = columns > kLabelColumns + 1 ? columns - kLabelColumns : 1;
    std::string line;
    std::size_t used = 0;
    while (!text.empty()) {
        const std::string_view next = text.substr(0, next_code_point(text).bytes);
        const std::size_t needed = display_width(next);
        if (used > 0 && used + needed > width) {
            lines.push_back(labelled(label, line));
            label = "";
            line.clear();
            used = 0;
        }
        line += next;
        used += needed;
        text.remove_prefix(next.size());
    }
    lines.push_back(labelled(label, line));
}

std::string time_and_age(uint64_t us, uint64_t now)
{
    return local_time(us) + "  (" + age_text(us, now) + ")";
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
    std::vector<std::string> lines;
    add_broken(lines, "topic", escaped(topic_), columns);
    const ShownTopic *shown = data.read(topic_, is_frozen);
    if (!shown) {
        lines.push_back(labelled("", "is gone"));
        return lines;
    }
    if (monotonic_us() >= look_at_users_ && !is_frozen) {
        users_ = user_lines();
        look_at_users_ = monotonic_us() + kUsersUs;
    }
    const Snapshot &snapshot = shown->snapshot;
    const ValueHistory &history = data.history(topic_);
    lines.push_back(labelled("type", snapshot.type_name() ? snapshot.type_name() : "-"));
    const Meaning meaning = meaning_of(topic_, snapshot);
    add_broken(lines, "value", meant_value(meaning, shown_value(snapshot, ByteStyle::hex)),
               columns);
    if (meaning.state)
        lines.push_back(labelled("state", state_text(meaning)));
    if (!history.line(kHistoryColumns).empty()) {
        lines.push_back(labelled("", history.line(kHistoryColumns)));
        lines.push_back(labelled("", history.range_text()));
    }
    lines.push_back(labelled("size", std::to_string(snapshot.size) + " of at most " +
                                         std::to_string(snapshot.max) + " bytes"));
    lines.push_back(labelled("quality", std::to_string(snapshot.quality)));
    if (snapshot.flags & kHasValue) {
        lines.push_back(labelled("written", time_and_age(snapshot.last_write_ts, shown->read_at)));
        lines.push_back(labelled("source", time_and_age(snapshot.source_ts, shown->read_at)));
    }
    lines.push_back(labelled("rate", data.rate_text(topic_) + " writes per second"));
    lines.push_back(labelled("counts", std::to_string(snapshot.providers) + " providers, " +
                                           std::to_string(snapshot.consumers) + " consumers"));
    const auto facts = fact_lines(meaning.facts);
    for (std::size_t index = 0; index < facts.size(); ++index)
        add_broken(lines, index == 0 ? "dictionary" : "",
                   facts[index].key + " " + facts[index].text + "  [" +
                       place_text(facts[index].place) + "]",
                   columns);
    for (std::size_t index = 0; index < users_.size(); ++index)
        lines.push_back(labelled(index == 0 ? "open in" : "", users_[index]));
    return lines;
}

} // namespace kp::tool
