// The topics of a selection, for programs that look at them again and again. Their files stay
// mapped or open as far as the system allows. New topics are found, and those that vanish are
// dropped; one that was removed and made anew is followed in its new file. A file that cannot be
// read is tried again now and then, since somebody may give it back its rights or its size.
#pragma once

#include "common/store/segment_reader.h"
#include "common/store/store_walk.h"

#include <map>
#include <set>
#include <time.h>
#include <utility>
#include <vector>

namespace kp::tool {

struct LiveTopic {
    std::string topic;
    SegmentReader reader;
    WriteStamp seen;         // of the last look
    bool is_new = true;      // not looked at yet
    bool unfinished = false; // a write was going on at the last look
    bool was_stuck = false;  // that write does not end, which has been reported
    bool is_due = false;     // the next look brings it again, even if it was not written

    // Reads the topic for whoever was brought here. That may be a later write than the look saw,
    // which is then not brought again. What could not be read whole is brought again.
    std::optional<Snapshot> read()
    {
        auto snapshot = reader.read();
        is_due = snapshot && snapshot->condition == Condition::busy;
        if (snapshot && !is_due)
            seen = stamp_of(*snapshot);
        return snapshot;
    }
};

class LiveStore : private StoreVisitor {
  public:
    // How many topics may be kept mapped, and how many open; the others are opened for each look.
    struct Limits {
        std::size_t mappings;
        std::size_t descriptors;
    };
    // Gives what the system allows, without what the program needs for itself. Raises the process's
    // limit of descriptors as far as it may.
    static Limits system_limits();

    explicit LiveStore(const Selection &selection, const Limits &limits = system_limits())
        : selection_(selection), limits_(limits)
    {
    }
    LiveStore(const LiveStore &) = delete; // its readers refer to its opener
    LiveStore &operator=(const LiveStore &) = delete;

    // Looks into the directories that changed since the last time, and once a second at the files
    // that could not be read.
    void refresh();

    // Calls `use(topic, is_new)` for each topic that was written since the last look. Whoever shows
    // the value takes it with the topic's read().
    template <typename Use> void for_each_change(const Use &use)
    {
        for (LiveTopic *live : in_a_row())
            look_at(*live, use);
        drop_lost();
    }

    // Does the same, but looks only at the topics for which `covers(topic)` is true.
    template <typename Covers, typename Use>
    void for_each_change_where(const Covers &covers, const Use &use)
    {
        for (LiveTopic *live : in_a_row())
            if (covers(*live))
                look_at(*live, use);
        drop_lost();
    }

    const std::map<std::string, LiveTopic> &topics() const
    {
        return topics_;
    }
    // Notes a problem for take_problems(), unless it was noted before.
    void report(const Problem &problem);
    // How many topics were found whose files cannot be read.
    std::size_t refused_count() const
    {
        return refused_.size();
    }
    // Drops from a map by topic what belongs to topics that are gone.
    template <typename Kept> void forget_removed(std::map<std::string, Kept> &kept) const
    {
        std::erase_if(kept, [this](const auto &entry) { return !topics_.contains(entry.first); });
    }
    // Gives the problems met since the last call, each once and sorted by their text.
    std::vector<Problem> take_problems();

  private:
    struct DirectoryState {
        timespec changed{};
        bool settled = false; // a change in the same clock tick would not show
        std::vector<std::string> children;
        std::vector<std::string> files;
    };

    void retry_refused();
    std::vector<std::string> enter(const std::string &directory, int fd,
                                   const struct stat &status) override;
    void miss(const std::string &directory, const Problem &problem) override;
    void forget_directory(const std::string &directory);
    void take(DirectoryState &state, StoreDirectory now);
    void follow(const StoreFile &file);
    void open(const std::string &topic);
    Means means_left() const;
    void drop_files(const DirectoryState &state, const std::vector<StoreFile> &now);
    void forget(const std::string &topic);
    void drop_lost();
    const std::vector<LiveTopic *> &in_a_row();
    void report_if_stuck(LiveTopic &live);

    template <typename Use> void look_at(LiveTopic &live, const Use &use)
    {
        const auto stamp = live.reader.stamp();
        if (!stamp) {
            lost_.push_back(live.topic);
            return;
        }
        if (std::exchange(live.unfinished, stamp->writing == 1) && live.unfinished)
            report_if_stuck(live);
        if (live.unfinished || (!live.is_new && !live.is_due && stamp->same_write(live.seen)))
            return; // a write in progress is seen at the next look
        live.is_due = false;
        live.was_stuck = false;
        const bool is_new = std::exchange(live.is_new, false);
        live.seen = *stamp;
        use(live, is_new);
    }

    const Selection &selection_;
    const Limits limits_;
    TopicOpener opener_;
    std::map<std::string, LiveTopic> topics_;
    // The same, since a step in a tree takes longer than a look at a topic that is at rest. Emptied
    // by each change of topics_.
    std::vector<LiveTopic *> row_;
    std::map<std::string, DirectoryState> directories_;
    std::set<std::string> refused_; // whose files could not be opened, or were cut short
    uint64_t retry_at_ = 0;
    std::vector<std::string> lost_;
    std::vector<Problem> problems_;
    std::set<std::string> told_;
};

} // namespace kp::tool
