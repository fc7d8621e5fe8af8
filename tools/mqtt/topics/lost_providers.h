// Decides when to look at which process has which topic open. A look reads the mappings of every
// process, so it comes only after a process has opened or closed a topic or has ended.
#pragma once

#include "providers/segment_holders.h"
#include "topics/topic_table.h"

#include <optional>

namespace kp::mqtt {

class LostProviders {
  public:
    LostProviders(TopicTable &topics, bool trust_visible);

    // Readable when a process with open topics has ended; the next scan is then due.
    int fd() const
    {
        return holders_.fd();
    }
    void hear_ends(Clock::time_point now);

    // Call it right after a scan.
    void look(Clock::time_point now);

    // When the next scan is needed, because a look can follow only a scan.
    std::optional<Clock::time_point> wants_scan_at() const;

  private:
    TopicTable &topics_;
    SegmentHolders holders_;
    bool wants_look_ = true;
    Clock::time_point next_look_{};
    std::optional<Clock::time_point> second_look_;
};

} // namespace kp::mqtt
