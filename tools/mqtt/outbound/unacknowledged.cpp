#include "outbound/unacknowledged.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

void Unacknowledged::add(int id, const Publication &publication)
{
    messages_[id] = publication;
}

std::optional<Publication> Unacknowledged::take(int id)
{
    auto found = messages_.extract(id);
    return found ? std::optional(std::move(found.mapped())) : std::nullopt;
}

Unacknowledged::Messages Unacknowledged::take_all()
{
    return std::exchange(messages_, {});
}

bool Unacknowledged::has(const std::string &topic) const
{
    return std::ranges::any_of(messages_,
                               [&topic](const auto &item) { return item.second.topic == topic; });
}

bool Unacknowledged::has_clearing_of(const std::string &topic) const
{
    return std::ranges::any_of(messages_, [&topic](const auto &item) {
        return item.second.topic == topic && item.second.payload.empty();
    });
}

std::optional<Clock::time_point> Unacknowledged::oldest() const
{
    std::optional<Clock::time_point> oldest;
    for (const auto &[id, publication] : messages_)
        oldest = std::min(oldest.value_or(publication.since), publication.since);
    return oldest;
}

} // namespace kp::mqtt
