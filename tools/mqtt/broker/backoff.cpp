#include "broker/backoff.h"

namespace kp::mqtt {

milliseconds Backoff::next()
{
    std::uniform_int_distribution<int64_t> part(next_.count() / 2, next_.count());
    const milliseconds delay(part(random_));
    next_ = std::min(next_ * 2, most_);
    return delay;
}

} // namespace kp::mqtt
