#include "top/topic_rows.h"

#include "common/text/text.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <algorithm>

namespace kp::tool {

namespace {

constexpr std::size_t kOtherColumns = 47; // all but topic and value, with the gaps
constexpr std::size_t kStateColumns = 12; // more, where there is a dictionary
constexpr std::size_t kLeastColumns = 16; // of the topic
constexpr std::size_t kLeastValue = 10;
constexpr std::size_t kTrendColumns = 20; // of the last minute beside a short value

Style style_of(ValueState state)
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

} // namespace

// Values get the room that is left beside names of usual length.
TopicRows::Widths TopicRows::widths_for(std::span<const std::string> topics) const
{
    const auto all = static_cast<std::size_t>(screen_.columns());
    const std::size_t others = kOtherColumns + (dictionary().is_empty() ? 0 : kStateColumns);
    const std::size_t shared = all > others ? all - others : 0;
    std::size_t longest = kLeastColumns;
    for (const std::string &topic : topics)
        longest = std::max(longest, display_width(escaped(topic)));
    const std::size_t topic = std::min(longest, std::max(kLeastColumns, shared * 3 / 5));
    return {topic, std::max(kLeastValue, shared - std::min(shared, topic))};
}

std::string TopicRows::row_text(const std::array<std::string, kColumns> &cells,
                                const Widths &widths)
{
    const std::size_t state = dictionary().is_empty() ? 0 : kStateColumns - 1;
    const std::array<std::size_t, kColumns> columns = {
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
std::string TopicRows::value_cell(const std::string &topic, const std::string &value,
                                  const Widths &widths) const
{
    const std::size_t left = widths.value - std::min(widths.value, display_width(value) + 1);
    if (left < kTrendColumns)
        return value;
    return padded(value, widths.value - kTrendColumns) +
           padded_left(data_.history(topic).line(kTrendColumns), kTrendColumns);
}

std::string TopicRows::topic_row(const std::string &topic, const ShownTopic &shown,
                                 const Meaning &meaning, const Widths &widths) const
{
    const Snapshot &snapshot = shown.snapshot;
    const std::string value = meant_value(meaning, shown_value(snapshot, ByteStyle::hex));
    const bool has_value = snapshot.flags & kHasValue;
    return row_text(
        {escaped(topic), snapshot.type_name() ? snapshot.type_name() : "-",
         value_cell(topic, value, widths), state_text(meaning), std::to_string(snapshot.quality),
         has_value ? age_text(snapshot.last_write_ts, shown.read_at) : "-", data_.rate_text(topic),
         std::to_string(snapshot.providers), std::to_string(snapshot.consumers)},
        widths);
}

Style TopicRows::style_of(const ShownTopic &shown, const Meaning &meaning) const
{
    const Snapshot &snapshot = shown.snapshot;
    if (snapshot.has_broken_value())
        return Style::bad;
    if (snapshot.condition != Condition::value)
        return Style::faint;
    if (meaning.state && *meaning.state != ValueState::ok)
        return tool::style_of(*meaning.state);
    if (snapshot.quality == KP_QUALITY_NONE || snapshot.providers > 1)
        return Style::warning;
    if (meaning.facts.stale_s)
        return Style::plain;
    return snapshot.last_write_ts + stale_us_ < shown.read_at ? Style::faint : Style::plain;
}

void TopicRows::draw(int row, std::span<const std::string> topics,
                     std::optional<std::size_t> cursor, bool is_frozen)
{
    const Widths widths = widths_for(topics);
    screen_.put(row,
                row_text({"TOPIC", "TYPE", "VALUE", "STATE", "QUAL", "AGE", "RATE", "PROV", "CONS"},
                         widths),
                Style::reverse);
    for (std::size_t index = 0; index < topics.size(); ++index) {
        ++row;
        const ShownTopic *shown = data_.read(topics[index], is_frozen);
        if (!shown)
            continue;
        const Meaning meaning = meaning_of(topics[index], shown->snapshot);
        screen_.put(row, topic_row(topics[index], *shown, meaning, widths),
                    index == cursor ? Style::reverse : style_of(*shown, meaning));
    }
}

} // namespace kp::tool
