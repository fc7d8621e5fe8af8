#include "common/segment_reader.h"

#include "common/fault_guard.h"
#include "common/text.h"
#include "layout/value_type.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <time.h>

namespace kp::tool {

namespace {

constexpr int kAttempts = 60;
// Two looks see one time stamp only if no write lies between them, but for writers that give all
// their writes the same. Those tear two looks alike once in some fifty, and five practically never.
constexpr int kLooks = 5;
constexpr long kPauseNs = 50'000; // a write lasts less than a microsecond

// The fields after the semaphore, and the value.
struct Copy {
    std::array<uint8_t, kSegmentSize + 1> bytes; // one more, in which a file that is too long shows

    Segment segment() const
    {
        Segment out;
        std::memcpy(&out, bytes.data(), sizeof(out));
        return out;
    }
};

constexpr std::size_t kFieldsStart = offsetof(Segment, last_write_ts);
constexpr std::size_t kFieldsEnd = offsetof(Segment, value);

// Where the value ends that the fields of a copy speak of.
std::size_t value_end(const Copy &copy)
{
    uint32_t size = 0;
    std::memcpy(&size, &copy.bytes[offsetof(Segment, written_value_size)], sizeof(size));
    return kFieldsEnd + std::min<std::size_t>(size, kValueAreaSize);
}

// Copies the fields and as much of the value as they speak of; returns the end of what was copied.
std::size_t copy_segment(const Segment &segment, Copy &copy)
{
    const auto *source = reinterpret_cast<const uint8_t *>(&segment);
    std::memcpy(&copy.bytes[kFieldsStart], source + kFieldsStart, kFieldsEnd - kFieldsStart);
    order_loads();
    const std::size_t end = value_end(copy);
    std::memcpy(&copy.bytes[kFieldsEnd], source + kFieldsEnd, end - kFieldsEnd);
    order_loads();
    return end;
}

// Says whether the segment at `source` still holds what was copied. The counts may change meanwhile:
// they are not part of a write.
bool still_holds(const uint8_t *source, const Copy &copy, std::size_t end)
{
    constexpr std::size_t counts = offsetof(Segment, refs);
    constexpr std::size_t after_counts = counts + sizeof(ReferenceCounts);
    return std::memcmp(source + kFieldsStart, &copy.bytes[kFieldsStart], counts - kFieldsStart) ==
               0 &&
           std::memcmp(source + after_counts, &copy.bytes[after_counts], end - after_counts) == 0;
}

bool is_being_written(const Copy &copy)
{
    return copy.bytes[offsetof(Segment, state) + offsetof(WriteState, writing)] == 1;
}

// Reads the file as a whole; false when it has not a segment's size.
bool read_whole(const UniqueFd &fd, Copy &copy)
{
    return pread(fd.get(), copy.bytes.data(), copy.bytes.size(), 0) == kSegmentSize;
}

enum class Attempt { good, disturbed, no_segment };

// A copy counts only if no write was going on before and after it and further looks find the same
// bytes: time stamps alone do not tell two writes of one microsecond apart.
Attempt try_copy(const Segment &segment, Copy &copy)
{
    bool same = load_acquire(segment.state.writing) != 1;
    const std::size_t end = copy_segment(segment, copy); // a busy one has fields to show
    for (int look = 1; look < kLooks && same; ++look) {
        same = load_acquire(segment.state.writing) != 1 &&
               still_holds(reinterpret_cast<const uint8_t *>(&segment), copy, end);
        order_loads();
    }
    return same && load_acquire(segment.state.writing) != 1 ? Attempt::good : Attempt::disturbed;
}

// The same without a mapping.
Attempt try_read(const UniqueFd &fd, Copy &copy)
{
    if (!read_whole(fd, copy))
        return Attempt::no_segment;
    bool same = !is_being_written(copy);
    const std::size_t end = value_end(copy);
    for (int look = 1; look < kLooks && same; ++look) {
        Copy again;
        if (pread(fd.get(), again.bytes.data(), end, 0) != static_cast<ssize_t>(end))
            return Attempt::no_segment;
        same = !is_being_written(again) && still_holds(again.bytes.data(), copy, end);
    }
    return same ? Attempt::good : Attempt::disturbed;
}

void pause_briefly()
{
    const timespec pause{0, kPauseNs};
    (void)nanosleep(&pause, nullptr);
}

bool makes_sense(const Snapshot &snapshot)
{
    if (snapshot.type >= kValueTypeCount || snapshot.max > kValueAreaSize)
        return false;
    if (!(snapshot.flags & kHasValue))
        return true;
    if (!has_variable_size(snapshot.type))
        return snapshot.size == kp_get_value_size(snapshot.type, 0);
    return snapshot.size <= kValueAreaSize;
}

Condition condition_of(const Snapshot &snapshot, bool settled)
{
    if (!(snapshot.flags & kValid))
        return Condition::undeclared;
    if (!settled)
        return Condition::busy;
    if (!makes_sense(snapshot))
        return Condition::corrupt;
    return snapshot.flags & kHasValue ? Condition::value : Condition::empty;
}

Snapshot snapshot_of(const Copy &copy, bool settled)
{
    const Segment segment = copy.segment();
    Snapshot snapshot;
    snapshot.last_write_ts = segment.last_write_ts;
    snapshot.source_ts = segment.source_ts;
    snapshot.type = segment.value_type;
    snapshot.max = segment.max_value_size;
    snapshot.extra = segment.extra_info;
    snapshot.size = segment.written_value_size;
    snapshot.quality = segment.quality;
    snapshot.flags = segment.state.flags;
    snapshot.writing = segment.state.writing;
    snapshot.providers = segment.refs.providers;
    snapshot.consumers = segment.refs.consumers;
    snapshot.reserved_in_use = std::any_of(std::begin(segment.reserved), std::end(segment.reserved),
                                           [](uint8_t byte) { return byte != 0; });
    snapshot.condition = condition_of(snapshot, settled);
    if (snapshot.condition == Condition::value)
        snapshot.bytes.assign(reinterpret_cast<const char *>(&copy.bytes[kFieldsEnd]),
                              snapshot.size);
    return snapshot;
}

} // namespace

const char *Snapshot::type_name() const
{
    return flags & kValid ? kp_type2str(type) : nullptr;
}

SegmentView::~SegmentView()
{
    if (segment_)
        (void)munmap(const_cast<Segment *>(segment_), kSegmentSize);
}

std::optional<SegmentView> SegmentView::open(TopicOpener &opener, const std::string &topic,
                                             Problem &problem)
{
    const UniqueFd fd = opener.open(topic, problem);
    if (!fd)
        return std::nullopt;
    struct stat status;
    void *memory = mmap(nullptr, kSegmentSize, PROT_READ, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED || fstat(fd.get(), &status) != 0) {
        problem = system_problem(escaped(topic), errno);
        return std::nullopt;
    }
    SegmentView view;
    view.segment_ = static_cast<const Segment *>(memory);
    view.inode_ = status.st_ino;
    return view;
}

std::optional<Snapshot> SegmentView::read() const
{
    Copy copy;
    std::memset(copy.bytes.data(), 0, kFieldsEnd);
    auto attempt = Attempt::disturbed;
    for (int count = 0; count < kAttempts; ++count) {
        if (!guarded([&] { attempt = try_copy(*segment_, copy); }))
            return std::nullopt;
        if (attempt == Attempt::good)
            break;
        pause_briefly();
    }
    return snapshot_of(copy, attempt == Attempt::good);
}

std::optional<WriteStamp> SegmentView::stamp() const
{
    WriteStamp stamp;
    const Segment &segment = *segment_;
    if (!guarded([&] {
            stamp.writing = load_acquire(segment.state.writing);
            stamp.last_write_ts = load_relaxed(segment.last_write_ts);
            stamp.source_ts = load_relaxed(segment.source_ts);
            stamp.size = load_relaxed(segment.written_value_size);
            stamp.quality = load_relaxed(segment.quality);
            stamp.flags = load_relaxed(segment.state.flags);
        }))
        return std::nullopt;
    return stamp;
}

std::optional<Snapshot> read_topic(TopicOpener &opener, const std::string &topic, Problem &problem)
{
    const UniqueFd fd = opener.open_any(topic, problem);
    if (!fd)
        return std::nullopt;
    Copy copy;
    auto attempt = Attempt::disturbed;
    for (int count = 0; count < kAttempts && attempt == Attempt::disturbed; ++count) {
        if (count > 0)
            pause_briefly();
        attempt = try_read(fd, copy);
    }
    if (attempt == Attempt::no_segment) {
        problem = TopicOpener::not_a_segment(topic, fd);
        return std::nullopt;
    }
    return snapshot_of(copy, attempt == Attempt::good);
}

Problem value_problem(const std::string &topic, const Snapshot &snapshot)
{
    const std::string name = escaped(topic);
    switch (snapshot.condition) {
    case Condition::undeclared:
        return {kNothing, name + ": no provider has declared it yet"};
    case Condition::empty:
        return {kNothing, name + ": no value has been written yet"};
    case Condition::busy:
        return {kInvalid, name + ": a write has begun and does not end (its writer may have died)"};
    default:
        return {kInvalid, name + ": the segment is corrupt (type " + std::to_string(snapshot.type) +
                              ", size " + std::to_string(snapshot.size) + ", maximum " +
                              std::to_string(snapshot.max) + ")"};
    }
}

} // namespace kp::tool
