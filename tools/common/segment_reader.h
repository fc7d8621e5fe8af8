// A segment, looked at for reading only. A look changes nothing, shows no value that is half written
// and survives a file that is cut short meanwhile.
#pragma once

#include "common/store_files.h"
#include "layout/segment.h"

#include <string>

namespace kp::tool {

enum class Condition {
    undeclared, // no provider has said what it holds
    empty,      // declared, no value yet
    value,
    busy,    // a write is going on, or its writer died in it
    corrupt, // fields that contradict each other
};

// A copy of a segment in which everything belongs together.
struct Snapshot {
    Condition condition = Condition::undeclared;
    uint64_t last_write_ts = 0;
    uint64_t source_ts = 0;
    uint32_t type = 0;
    uint32_t max = 0;
    uint32_t extra = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint8_t flags = 0;
    uint8_t writing = 0;
    uint8_t providers = 0;
    uint8_t consumers = 0;
    bool reserved_in_use = false; // bytes that every writer leaves zero are not
    std::string bytes;            // the value, when the condition is `value`

    // An undeclared segment has no type that means anything.
    const char *type_name() const;
};

// What changes when a topic is written, cheap to look at often.
struct WriteStamp {
    uint64_t last_write_ts = 0;
    uint64_t source_ts = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint8_t flags = 0;
    uint8_t writing = 0;

    // Says whether two looks saw the same write; a write in progress is none yet.
    bool same_write(const WriteStamp &other) const
    {
        return last_write_ts == other.last_write_ts && source_ts == other.source_ts &&
               size == other.size && quality == other.quality && flags == other.flags;
    }
};

class SegmentView {
  public:
    SegmentView() = default;
    SegmentView(SegmentView &&other) noexcept
        : segment_(std::exchange(other.segment_, nullptr)), inode_(other.inode_)
    {
    }
    SegmentView &operator=(SegmentView &&other) noexcept
    {
        std::swap(segment_, other.segment_);
        std::swap(inode_, other.inode_);
        return *this;
    }
    SegmentView(const SegmentView &) = delete;
    SegmentView &operator=(const SegmentView &) = delete;
    ~SegmentView();

    static std::optional<SegmentView> open(TopicOpener &opener, const std::string &topic,
                                           Problem &problem);

    // Nothing when the file was cut short.
    std::optional<Snapshot> read() const;
    std::optional<WriteStamp> stamp() const;
    ino_t inode() const
    {
        return inode_;
    }

  private:
    const Segment *segment_ = nullptr;
    ino_t inode_ = 0;
};

// Opens, reads and closes a topic. Reads the file instead of mapping it, which takes a third of the
// time for a single look, and counts only what several readings agree on.
std::optional<Snapshot> read_topic(TopicOpener &opener, const std::string &topic, Problem &problem);

// Why a snapshot has no value to show; only for other conditions than `value`.
Problem value_problem(const std::string &topic, const Snapshot &snapshot);

} // namespace kp::tool
