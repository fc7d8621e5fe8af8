// Topics whose counts have no process behind them, and topics in which no handle is counted and
// that nobody will remove; and what is done about them.
#pragma once

#include "collecting/deed.h"
#include "common/store/segment_reader.h"
#include "common/store/store_walk.h"
#include "common/system/processes.h"
#include "layout/segment.h"

namespace kp::tool {

struct DeadTopic {
    std::string topic;
    FileId file;
    ReferenceCounts counted{};
    ReferenceCounts right{};     // what the counts should be
    uint64_t last_write_ts = 0;  // microseconds since the epoch
    uint64_t changed_us = 0;     // the file's own time, which opening moves, in the same unit
    std::vector<Mapper> mappers; // who has it open
    unsigned open = 0;           // handles

    // No handle was ever counted in it: only instant writes touched it.
    bool is_orphan() const
    {
        return counted.sum() == 0;
    }
    // Some of both roles are left, and nothing tells whose handles are gone.
    bool is_ambiguous() const
    {
        return open > 0 && counted.providers > 0 && counted.consumers > 0;
    }
    bool is_removed() const
    {
        return mappers.empty();
    }
};

struct DeadTopics {
    std::vector<DeadTopic> topics;
    std::vector<Problem> problems;
    bool sees_everybody = true; // if not, nothing can be proved, and no topic is listed
};

struct TopicSearch {
    bool orphans = false;
    uint64_t orphans_written_before = 0; // microseconds since the epoch; opened before, too
    bool trust_visible = false;          // take the processes that can be seen for all there are
};

// Looks once at all topics and once at all processes.
DeadTopics find_dead_topics(const StoreListing &listing, const TopicSearch &search);

// Removes or corrects the topics. It proves again that they are dead while it holds the locks of
// their files, with one look at all processes for some hundreds of topics. The results stand in the
// order of the topics; ambiguous ones are left alone.
std::vector<DeedResult> bury_topics(const std::vector<DeadTopic> &topics);

} // namespace kp::tool
