#include "outbound/acknowledged.h"

#include <utility>

namespace kp::mqtt {

void Acknowledged::keep(Publication value)
{
    last_kept_ = std::move(value);
}

void Acknowledged::keep_no_more(const std::string &topic)
{
    if (last_kept_ && last_kept_->topic == topic)
        last_kept_.reset();
}

void Acknowledged::remember_cleared(const std::string &topic)
{
    cleared_.push_back(topic);
    if (cleared_.size() > kMostCleared)
        cleared_.pop_front();
}

std::deque<std::string> Acknowledged::take_cleared()
{
    return std::exchange(cleared_, {});
}

} // namespace kp::mqtt
