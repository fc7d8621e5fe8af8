#include "common/store/segment_reader.h"

#include "common/store/fault_guard.h"
#include "common/text/text.h"
#include "layout/field.h"
#include "layout/value_type.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/mman.h>
#include <utility>

namespace kp::tool {

namespace {

// Of all readers. Plain numbers: readers are opened and destroyed by one thread.
std::size_t mapped_readers = 0;
std::size_t open_readers = 0;

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

Condition condition_of(const Snapshot &snapshot, CopyOutcome outcome)
{
    if (!(snapshot.flags & kValid))
        return Condition::undeclared;
    if (outcome != CopyOutcome::whole)
        return Condition::busy;
    if (!makes_sense(snapshot))
        return Condition::corrupt;
    return snapshot.flags & kHasValue ? Condition::value : Condition::empty;
}

Snapshot snapshot_of(const SegmentCopy &copy, CopyOutcome outcome, ino_t inode)
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
    snapshot.reserved_in_use = std::ranges::any_of(segment.reserved, [](auto b) { return b != 0; });
    snapshot.inode = inode;
    snapshot.condition = condition_of(snapshot, outcome);
    if (snapshot.condition == Condition::value)
        snapshot.bytes = copy.value();
    return snapshot;
}

// Reads from a mapping or from an open file.
template <typename Source, typename... Patient>
std::optional<Snapshot> read_from(const Source &source, ino_t inode, Patient... patience)
{
    SegmentCopy copy;
    const CopyTaken taken = take_whole_copy(source, copy, patience...);
    if (taken.outcome == CopyOutcome::no_segment)
        return std::nullopt;
    Snapshot snapshot = snapshot_of(copy, taken.outcome, inode);
    snapshot.is_written_on = snapshot.condition == Condition::busy && taken.is_written_on;
    return snapshot;
}

WriteStamp stamp_of(const Segment &segment)
{
    WriteStamp stamp;
    stamp.writing = load_acquire(segment.state.writing);
    stamp.last_write_ts = load_relaxed(segment.last_write_ts);
    stamp.source_ts = load_relaxed(segment.source_ts);
    stamp.size = load_relaxed(segment.written_value_size);
    stamp.quality = load_relaxed(segment.quality);
    stamp.flags = load_relaxed(segment.state.flags);
    return stamp;
}

} // namespace

WriteStamp stamp_of(const Snapshot &snapshot)
{
    return {snapshot.last_write_ts, snapshot.source_ts, snapshot.size,
            snapshot.quality,       snapshot.flags,     snapshot.writing};
}

const char *Snapshot::type_name() const
{
    return flags & kValid ? kp_type2str(type) : nullptr;
}

SegmentReader::SegmentReader(SegmentReader &&other) noexcept
{
    swap(other);
}

SegmentReader &SegmentReader::operator=(SegmentReader &&other) noexcept
{
    swap(other);
    return *this;
}

void SegmentReader::swap(SegmentReader &other) noexcept
{
    std::swap(segment_, other.segment_);
    std::swap(opener_, other.opener_);
    std::swap(topic_, other.topic_);
    std::swap(inode_, other.inode_);
    const int fd = fd_.release();
    fd_.reset(other.fd_.release());
    other.fd_.reset(fd);
}

SegmentReader::~SegmentReader()
{
    mapped_readers -= segment_ != nullptr;
    open_readers -= static_cast<bool>(fd_);
    if (segment_)
        (void)munmap(const_cast<Segment *>(segment_), kSegmentSize);
}

std::size_t SegmentReader::count_by(Means means)
{
    return means == Means::mapping ? mapped_readers : means == Means::descriptor ? open_readers : 0;
}

std::optional<SegmentReader> SegmentReader::open(TopicOpener &opener, const std::string &topic,
                                                 Problem &problem, Means means)
{
    UniqueFd fd = opener.open(topic, problem);
    struct stat status;
    if (!fd)
        return std::nullopt;
    if (fstat(fd.get(), &status) != 0) {
        problem = system_problem(escaped(topic), errno);
        return std::nullopt;
    }
    SegmentReader reader;
    reader.inode_ = status.st_ino;
    if (means == Means::name) {
        reader.opener_ = &opener;
        reader.topic_ = topic;
        return reader;
    }
    void *memory = means == Means::mapping
                       ? mmap(nullptr, kSegmentSize, PROT_READ, MAP_SHARED, fd.get(), 0)
                       : MAP_FAILED;
    if (memory != MAP_FAILED)
        reader.segment_ = static_cast<const Segment *>(memory);
    else
        reader.fd_.reset(fd.release());
    ++(reader.segment_ ? mapped_readers : open_readers);
    return reader;
}

// Empty when it is not the file any more that was opened first.
UniqueFd SegmentReader::reopen() const
{
    Problem ignored;
    struct stat status;
    UniqueFd fd = opener_->open(topic_, ignored);
    if (fd && (fstat(fd.get(), &status) != 0 || status.st_ino != inode_))
        fd.reset();
    return fd;
}

std::optional<Snapshot> SegmentReader::read() const
{
    if (segment_)
        return read_from(*segment_, inode_);
    if (fd_)
        return read_from(fd_, inode_);
    const UniqueFd fd = reopen();
    return fd ? read_from(fd, inode_) : std::nullopt;
}

std::optional<WriteStamp> SegmentReader::stamp() const
{
    WriteStamp stamp;
    if (segment_) {
        if (!guarded([&] { stamp = stamp_of(*segment_); }))
            return std::nullopt;
        return stamp;
    }
    Segment segment;
    const UniqueFd opened = fd_ ? UniqueFd() : reopen();
    const int fd = fd_ ? fd_.get() : opened.get();
    constexpr std::size_t kFieldsEnd = offsetof(Segment, value);
    if (pread(fd, &segment, kFieldsEnd, 0) != static_cast<ssize_t>(kFieldsEnd))
        return std::nullopt;
    return stamp_of(segment);
}

std::optional<Snapshot> read_topic(TopicOpener &opener, const std::string &topic, Problem &problem,
                                   Patience patience)
{
    const UniqueFd fd = opener.open_any(topic, problem);
    if (!fd)
        return std::nullopt;
    struct stat status;
    auto snapshot =
        fstat(fd.get(), &status) == 0 ? read_from(fd, status.st_ino, patience) : std::nullopt;
    if (!snapshot)
        problem = TopicOpener::not_a_segment(topic, fd);
    return snapshot;
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
        if (snapshot.is_written_on)
            return {kLimit, name + ": is written without a pause in which it could be read"};
        return {kInvalid, name + ": a write has begun and does not end (its writer may have died)"};
    default:
        return {kInvalid, name + ": the segment is corrupt (type " + std::to_string(snapshot.type) +
                              ", size " + std::to_string(snapshot.size) + ", maximum " +
                              std::to_string(snapshot.max) + ")"};
    }
}

} // namespace kp::tool
