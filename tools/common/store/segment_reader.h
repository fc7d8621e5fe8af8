// The one look at a segment that all tools share. It only reads: it takes no count and no lock,
// shows no value that is half written (whole_copy.h), and survives a file that is cut short
// meanwhile.
#pragma once

#include "common/store/store_files.h"
#include "common/store/whole_copy.h"
#include "layout/segment.h"

#include <string>

namespace kp::tool {

enum class Condition {
    undeclared, // no provider has said what it holds
    empty,      // declared, but no value has been written
    value,
    busy,    // a write is going on, or its writer died in it
    corrupt, // fields that contradict each other
};

// A copy of a segment in which everything belongs together.
struct Snapshot {
    Condition condition = Condition::undeclared;
    uint64_t last_write_ts = 0; // microseconds since the epoch
    uint64_t source_ts = 0;     // the same unit
    uint32_t type = 0;
    uint32_t max = 0; // 0 when no provider ever declared the topic
    uint32_t extra = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint8_t flags = 0;
    uint8_t writing = 0;
    uint8_t providers = 0;
    uint8_t consumers = 0;
    bool is_written_on = false;   // `busy`, and its writer goes on writing
    bool reserved_in_use = false; // one of the bytes that every writer leaves zero is not zero
    ino_t inode = 0;              // tells a topic that was made anew from the one before
    std::string bytes;            // the value, when the condition is `value`

    bool has_value() const
    {
        return condition == Condition::value && !bytes.empty();
    }
    // Says whether nobody can read the value; value_problem() tells why.
    bool has_broken_value() const
    {
        return condition == Condition::busy || condition == Condition::corrupt;
    }
    // Null for an undeclared segment, whose type means nothing.
    const char *type_name() const;

    friend bool operator==(const Snapshot &, const Snapshot &) = default;
};

// What changes when a topic is written, cheap to look at often.
struct WriteStamp {
    uint64_t last_write_ts = 0;
    uint64_t source_ts = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint8_t flags = 0;
    uint8_t writing = 0;

    // Says whether two looks saw the same write. A write in progress does not count.
    bool same_write(const WriteStamp &other) const
    {
        return last_write_ts == other.last_write_ts && source_ts == other.source_ts &&
               size == other.size && quality == other.quality && flags == other.flags;
    }
};

// The stamp of the write that a snapshot shows.
WriteStamp stamp_of(const Snapshot &snapshot);

// How a segment is looked at that is looked at often. A mapping is fastest, but a process has
// 65,530 of them on most systems; a descriptor is the next best, of which it has as many as its
// limit says; the name alone takes neither, and is opened for each look.
enum class Means { mapping, descriptor, name };

// A segment that stays open, to be looked at again and again. Any thread may look, one at a time.
// Looks through a mapping need catch_bus_errors() to have been called.
class SegmentReader {
  public:
    SegmentReader(SegmentReader &&other) noexcept;
    SegmentReader &operator=(SegmentReader &&other) noexcept;
    SegmentReader(const SegmentReader &) = delete;
    SegmentReader &operator=(const SegmentReader &) = delete;
    ~SegmentReader();

    // Nothing, with a problem, when there is no such segment. Takes a descriptor where no mapping
    // is left. A reader by name keeps the opener, which must outlive it.
    static std::optional<SegmentReader> open(TopicOpener &opener, const std::string &topic,
                                             Problem &problem, Means means = Means::mapping);

    // Nothing when the file was cut short, or by name when another took its place.
    std::optional<Snapshot> read() const;
    std::optional<WriteStamp> stamp() const;

    ino_t inode() const
    {
        return inode_;
    }
    Means means() const
    {
        return segment_ ? Means::mapping : fd_ ? Means::descriptor : Means::name;
    }
    // How many readers of this process use a means that is scarce.
    static std::size_t count_by(Means means);

  private:
    SegmentReader() = default;
    UniqueFd reopen() const;
    void swap(SegmentReader &other) noexcept;

    const Segment *segment_ = nullptr; // null without a mapping
    UniqueFd fd_;                      // empty but for Means::descriptor
    TopicOpener *opener_ = nullptr;    // null but for Means::name
    std::string topic_;                // the same
    ino_t inode_ = 0;
};

// Opens a topic, reads it and closes it. Without a mapping, which takes a third of the time for a
// single look, and without a signal handler.
std::optional<Snapshot> read_topic(TopicOpener &opener, const std::string &topic, Problem &problem,
                                   Patience patience = Patience::some);

// Why a snapshot has no value to show; only for other conditions than `value`.
Problem value_problem(const std::string &topic, const Snapshot &snapshot);

} // namespace kp::tool
