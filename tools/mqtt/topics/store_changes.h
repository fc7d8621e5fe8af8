// When to look at the store, and at what. The marks of notices name the topics that have changed. A
// scan of the whole store finds new and removed topics, and the changes that nobody announced.
#pragma once

#include "common/device/notice_marks.h"
#include "topics/lost_providers.h"
#include "topics/topic_table.h"

namespace kp::mqtt {

class StoreChanges {
  public:
    // What is given must outlive it.
    StoreChanges(const Configuration &configuration, tool::NoticeMarks &marks, TopicTable &topics);

    // Readable while there are marks.
    int marks_fd() const
    {
        return marks_.fd();
    }
    // Readable when a process with open topics has ended. Call hear_ends() then.
    int ends_fd() const
    {
        return lost_providers_.fd();
    }
    void hear_ends(Clock::time_point now);

    // Looks at the topics that notices have marked. A mark that none of them explains is probably a
    // new topic's, and brings the next scan forward.
    void look_at_marks(Clock::time_point now);

    // Scans if it is time, and may then look at who has which topic open.
    void scan_when_due(Clock::time_point now);
    void make_scan_due(Clock::time_point now)
    {
        next_scan_ = now;
    }
    Clock::time_point next_scan() const
    {
        return next_scan_;
    }

  private:
    const Configuration &configuration_;
    tool::NoticeMarks &marks_;
    TopicTable &topics_;
    LostProviders lost_providers_;
    Clock::time_point next_scan_{};
    Clock::time_point last_scan_{};
};

} // namespace kp::mqtt
