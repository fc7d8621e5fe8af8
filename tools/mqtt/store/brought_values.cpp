#include "store/brought_values.h"

namespace kp::mqtt {

void BroughtValues::begin(const std::string &tag, const Sample &sample, MessageKey key)
{
    const std::lock_guard lock(mutex_);
    auto &written = written_[tag];
    written[1] = written[0];
    written[0] = {mark_of(sample), key, true};
}

void BroughtValues::complete(const std::string &tag, const Sample *current)
{
    const std::lock_guard lock(mutex_);
    const auto found = written_.find(tag);
    if (found == written_.end())
        return;
    Written &written = found->second[0];
    written.is_under_way = false;
    if (current && written.value.is_same_value(mark_of(*current)))
        written.value.ts = current->ts;
}

void BroughtValues::forget(const std::string &tag)
{
    const std::lock_guard lock(mutex_);
    written_.erase(tag);
}

std::optional<MessageKey> BroughtValues::key_of(const std::string &tag, const Sample &sample) const
{
    const ValueMark seen = mark_of(sample);
    const std::lock_guard lock(mutex_);
    const auto found = written_.find(tag);
    if (found == written_.end() || !seen.has_value)
        return {};
    for (const Written &written : found->second)
        if (written.is(seen))
            return written.key;
    return {};
}

} // namespace kp::mqtt
