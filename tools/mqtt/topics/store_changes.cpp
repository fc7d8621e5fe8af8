#include "topics/store_changes.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

constexpr milliseconds kScanSoon{100}; // after a notice of a topic that is not known

} // namespace

StoreChanges::StoreChanges(const Configuration &configuration, tool::NoticeMarks &marks,
                           TopicTable &topics)
    : configuration_(configuration), marks_(marks), topics_(topics),
      lost_providers_(topics, configuration.trust_visible)
{
}

void StoreChanges::hear_ends(Clock::time_point now)
{
    lost_providers_.hear_ends(now);
}

void StoreChanges::look_at_marks(Clock::time_point now)
{
    const tool::Buckets buckets = marks_.take();
    if (buckets.any() && !topics_.refresh(buckets, now))
        next_scan_ = std::min(next_scan_, last_scan_ + kScanSoon);
}

void StoreChanges::scan_when_due(Clock::time_point now)
{
    next_scan_ = std::min(next_scan_, lost_providers_.wants_scan_at().value_or(next_scan_));
    if (now < next_scan_)
        return;
    topics_.scan(now);
    last_scan_ = now;
    next_scan_ = now + configuration_.scan_interval;
    lost_providers_.look(now);
}

} // namespace kp::mqtt
