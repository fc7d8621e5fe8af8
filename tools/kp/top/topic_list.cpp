#include "top/topic_list.h"

#include <algorithm>
#include <utility>

namespace kp::tool {

void TopicList::set(std::vector<std::string> topics, std::size_t rows)
{
    topics_ = std::move(topics);
    const auto chosen = std::ranges::find(topics_, chosen_);
    if (is_marked_ && chosen != topics_.end())
        cursor_ = static_cast<std::size_t>(chosen - topics_.begin());
    move_to(cursor_, rows);
}

void TopicList::move_to(std::size_t index, std::size_t rows)
{
    cursor_ = topics_.empty() ? 0 : std::min(index, topics_.size() - 1);
    chosen_ = topics_.empty() ? "" : topics_[cursor_];
    if (cursor_ < first_)
        first_ = cursor_;
    if (cursor_ >= first_ + rows)
        first_ = cursor_ + 1 - rows;
    first_ = std::min(first_, topics_.size() - std::min(topics_.size(), rows));
}

bool TopicList::mark_cursor()
{
    return std::exchange(is_marked_, true);
}

std::span<const std::string> TopicList::seen(std::size_t rows) const
{
    const std::span<const std::string> all(topics_);
    return all.subspan(first_, std::min(rows, all.size() - first_));
}

std::optional<std::size_t> TopicList::marked() const
{
    return is_marked_ ? std::optional(cursor_ - first_) : std::nullopt;
}

} // namespace kp::tool
