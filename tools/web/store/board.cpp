#include "store/board.h"

#include "store/row_line.h"

#include <algorithm>

namespace kp::web {

namespace {

// For clients that come back, so many of the topics that went are remembered.
constexpr std::size_t kMostGone = 1000;
constexpr std::size_t kLeastIds = 1024;

// The data is a whole line of JSON, with its line break.
std::string event_text(const std::string &id, const std::string &name, const std::string &data)
{
    return "id: " + id + (name.empty() ? "" : "\nevent: " + name) + "\ndata: " + data + "\n";
}

} // namespace

Board::Board(tool::Selection shown, tool::DictionaryPlace dictionary)
    : shown_(std::move(shown)), store_(shown_), dictionary_(std::move(dictionary)),
      instance_(std::to_string(tool::now_us()))
{
    (void)dictionary_.refresh();
}

void Board::refresh()
{
    store_.refresh();
    if (store_.topics().size() != alive_)
        follow_topics();
    if (!dictionary_.refresh())
        return;
    for (auto &[topic, entry] : entries_)
        entry.event.reset();
    ++generation_;
}

void Board::look()
{
    refresh();
    bool found_new = false;
    store_.for_each_change([this, &found_new](tool::LiveTopic &live, bool is_new) {
        note_change(live.topic);
        found_new |= is_new;
    });
    if (found_new || store_.topics().size() != alive_)
        follow_topics();
}

const Board::Entry *Board::next_after(uint64_t sequence) const
{
    const auto next = order_.upper_bound(sequence);
    return next == order_.end() ? nullptr : next->second;
}

void Board::note_change(const std::string &topic)
{
    Entry &entry = entries_[topic];
    if (entry.sequence == 0) {
        entry.topic = topic;
        entry.id = next_id_++;
    }
    if (entry.sequence == 0 || entry.is_gone) {
        ++alive_;
        ++generation_;
    }
    entry.is_gone = false;
    move_to_end(entry);
}

void Board::move_to_end(Entry &entry)
{
    entry.event.reset();
    auto node = order_.extract(entry.sequence);
    entry.sequence = ++sequence_;
    if (node.empty()) {
        order_.emplace_hint(order_.end(), entry.sequence, &entry);
        return;
    }
    node.key() = entry.sequence;
    order_.insert(order_.end(), std::move(node));
}

void Board::follow_topics()
{
    for (const auto &[topic, live] : store_.topics()) {
        const auto known = entries_.find(topic);
        if (known == entries_.end() || known->second.is_gone)
            note_change(topic);
    }
    for (auto &[topic, entry] : entries_)
        if (!entry.is_gone && !store_.topics().contains(topic))
            let_go(entry);
    forget_oldest();
    if (next_id_ > std::max(kLeastIds, 4 * entries_.size()))
        number_anew();
}

void Board::let_go(Entry &entry)
{
    entry.is_gone = true;
    --alive_;
    ++generation_;
    move_to_end(entry);
    gone_.emplace_back(entry.sequence, entry.topic);
}

void Board::forget_oldest()
{
    for (; gone_.size() > kMostGone; gone_.pop_front()) {
        const auto &[sequence, topic] = gone_.front();
        const auto entry = entries_.find(topic);
        if (entry != entries_.end() && entry->second.sequence == sequence) {
            order_.erase(sequence);
            entries_.erase(entry);
        }
        forgotten_ = sequence;
    }
}

void Board::number_anew()
{
    next_id_ = 0;
    ++numbering_;
    for (auto &[topic, entry] : entries_)
        entry.id = next_id_++;
}

std::shared_ptr<const std::string> Board::event_of(const Entry &entry)
{
    if (entry.event)
        return entry.event;
    const std::string id = instance_ + "-" + std::to_string(entry.sequence);
    const auto live = store_.topics().find(entry.topic);
    const auto snapshot = live == store_.topics().end() ? std::nullopt : live->second.reader.read();
    const bool is_gone = entry.is_gone || !snapshot;
    auto text = std::make_shared<const std::string>(
        is_gone ? event_text(id, "gone", topic_line(entry.topic))
                : event_text(id, "", row_line({entry.topic, *snapshot}, dictionary())));
    order_.at(entry.sequence)->event = text;
    return text;
}

std::vector<std::string> Board::take_problems()
{
    std::vector<std::string> lines;
    for (const tool::Problem &problem : store_.take_problems())
        lines.push_back(problem.text);
    for (const tool::DictionaryProblem &problem : dictionary_.take_problems())
        lines.push_back(tool::place_text(problem.place) + ": " + problem.text);
    return lines;
}

} // namespace kp::web
