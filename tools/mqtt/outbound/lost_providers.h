// When to look at who has which topic open: only when somebody has opened, closed or ended, since a
// look reads the mappings of every process.
#pragma once

#include "outbound/topic_table.h"
#include "providers/segment_holders.h"

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

    // When a scan is wanted for the sake of a look.
    std::optional<Clock::time_point> wants_scan_at() const;

  private:
    TopicTable &topics_;
    SegmentHolders holders_;
    bool wants_look_ = true;
    Clock::time_point next_look_{};
    std::optional<Clock::time_point> second_look_;
};

} // namespace kp::mqtt
