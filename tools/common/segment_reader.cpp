#include "common/segment_reader.h"

#include "common/fault_guard.h"
#include "common/text.h"
#include "layout/field.h"
#include "layout/value_type.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <time.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr int kLooks = 5;
constexpr int kAttemptsBeforePause = 16;
constexpr int kPauses = 60;
constexpr long kPauseNs = 50'000; // a write lasts less than a microsecond

constexpr std::size_t kFieldsStart = offsetof(Segment, last_write_ts);
constexpr std::size_t kFieldsEnd = offsetof(Segment, value);
constexpr std::size_t kCountsStart = offsetof(Segment, refs);
constexpr std::size_t kCountsEnd = kCountsStart + sizeof(ReferenceCounts);

// The fields behind the semaphore, and as much of the value as they speak of.
struct Copy {
    std::array<uint8_t, kSegmentSize + 1> bytes; // one more, in which a file that is too long shows

    Segment segment() const
    {
        Segment out;
        std::memcpy(&out, bytes.data(), sizeof(out));
        return out;
    }
    // Where the value ends that the fields speak of.
    std::size_t end() const
    {
        uint32_t size = 0;
        std::memcpy(&size, &bytes[offsetof(Segment, written_value_size)], sizeof(size));
        return kFieldsEnd + std::min<std::size_t>(size, kValueAreaSize);
    }
    bool is_being_written() const
    {
        return bytes[offsetof(Segment, state) + offsetof(WriteState, writing)] == 1;
    }
};

// Compares what belongs to a write.
//
// Deliberate: here and in MappedSource::take() memcmp() and memcpy() touch fields that a writer may
// be storing, not the accesses of field.h. A copy may come out torn, which is expected: further
// looks and the mark, which does go through field.h, tell it. One access for each byte would make a
// look so much longer that a busy writer would leave no gap for it.
bool same_bytes(const uint8_t *source, const Copy &copy, std::size_t end)
{
    const uint8_t *known = copy.bytes.data();
    return std::memcmp(source + kFieldsStart, known + kFieldsStart, kCountsStart - kFieldsStart) ==
               0 &&
           std::memcmp(source + kCountsEnd, known + kCountsEnd, end - kCountsEnd) == 0;
}

// Of all readers. Plain numbers: readers are opened and destroyed by one thread.
std::size_t mapped_readers = 0;
std::size_t open_readers = 0;

enum class Look { good, disturbed, no_segment };

Look good_if(bool is_good)
{
    return is_good ? Look::good : Look::disturbed;
}

// Looks at a mapped segment. The mark of a write in progress is visible before any store of the
// write and is cleared after all of them, so it is loaded before and after what it guards.
class MappedSource {
  public:
    explicit MappedSource(const Segment &segment) : segment_(segment)
    {
    }
    // Runs `access`; false when the memory was gone.
    template <typename Access> bool run(const Access &access) const
    {
        return guarded(access);
    }
    Look take(Copy &copy) const
    {
        const bool is_quiet = !is_being_written();
        const auto *source = reinterpret_cast<const uint8_t *>(&segment_);
        std::memcpy(&copy.bytes[kFieldsStart], source + kFieldsStart, kFieldsEnd - kFieldsStart);
        order_loads();
        std::memcpy(&copy.bytes[kFieldsEnd], source + kFieldsEnd, copy.end() - kFieldsEnd);
        order_loads();
        return good_if(is_quiet && !is_being_written());
    }
    Look compare(const Copy &copy) const
    {
        const bool is_quiet = !is_being_written();
        const bool same =
            is_quiet && same_bytes(reinterpret_cast<const uint8_t *>(&segment_), copy, copy.end());
        order_loads();
        return good_if(same && !is_being_written());
    }

  private:
    bool is_being_written() const
    {
        return load_acquire(segment_.state.writing) == 1;
    }

    const Segment &segment_;
};

// Looks at an open file. Each look is one system call, and no load moves from one to the next.
class FileSource {
  public:
    explicit FileSource(const UniqueFd &fd) : fd_(fd)
    {
    }
    template <typename Access> bool run(const Access &access) const
    {
        access();
        return true;
    }
    Look take(Copy &copy) const
    {
        if (pread(fd_.get(), copy.bytes.data(), copy.bytes.size(), 0) != kSegmentSize)
            return Look::no_segment;
        return good_if(!copy.is_being_written());
    }
    Look compare(const Copy &copy) const
    {
        Copy again;
        const std::size_t end = copy.end();
        if (pread(fd_.get(), again.bytes.data(), end, 0) != static_cast<ssize_t>(end))
            return Look::no_segment;
        return good_if(!again.is_being_written() && same_bytes(again.bytes.data(), copy, end));
    }

  private:
    const UniqueFd &fd_;
};

// One attempt. What is copied of a segment that is being written has fields to show.
template <typename Source> Look attempt(const Source &source, Copy &copy)
{
    Look look = source.take(copy);
    for (int count = 1; count < kLooks && look == Look::good; ++count)
        look = source.compare(copy);
    return look;
}

void pause_briefly()
{
    const timespec pause{0, kPauseNs};
    (void)nanosleep(&pause, nullptr);
}

uint64_t timestamp_of(const Copy &copy)
{
    return copy.segment().last_write_ts;
}

// What came of all attempts, and whether the writer that disturbed them wrote on meanwhile.
struct Looked {
    Look look = Look::disturbed;
    bool is_written_on = false;
};

template <typename Source> Looked look_patiently(const Source &source, Copy &copy)
{
    std::memset(copy.bytes.data(), 0, kFieldsEnd);
    auto look = Look::disturbed;
    std::optional<uint64_t> first;
    for (int pauses = 0;; ++pauses) {
        for (int count = 0; count < kAttemptsBeforePause && look == Look::disturbed; ++count)
            if (!source.run([&] { look = attempt(source, copy); }))
                return {Look::no_segment};
        if (!first)
            first = timestamp_of(copy);
        if (look != Look::disturbed || pauses == kPauses)
            return {look, timestamp_of(copy) != *first};
        pause_briefly();
    }
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

Condition condition_of(const Snapshot &snapshot, Look look)
{
    if (!(snapshot.flags & kValid))
        return Condition::undeclared;
    if (look != Look::good)
        return Condition::busy;
    if (!makes_sense(snapshot))
        return Condition::corrupt;
    return snapshot.flags & kHasValue ? Condition::value : Condition::empty;
}

Snapshot snapshot_of(const Copy &copy, Look look, ino_t inode)
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
    snapshot.condition = condition_of(snapshot, look);
    if (snapshot.condition == Condition::value)
        snapshot.bytes.assign(reinterpret_cast<const char *>(&copy.bytes[kFieldsEnd]),
                              snapshot.size);
    return snapshot;
}

template <typename Source> std::optional<Snapshot> read_from(const Source &source, ino_t inode)
{
    Copy copy;
    const Looked looked = look_patiently(source, copy);
    if (looked.look == Look::no_segment)
        return std::nullopt;
    Snapshot snapshot = snapshot_of(copy, looked.look, inode);
    snapshot.is_written_on = snapshot.condition == Condition::busy && looked.is_written_on;
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
        return read_from(MappedSource(*segment_), inode_);
    if (fd_)
        return read_from(FileSource(fd_), inode_);
    const UniqueFd fd = reopen();
    return fd ? read_from(FileSource(fd), inode_) : std::nullopt;
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
    if (pread(fd, &segment, kFieldsEnd, 0) != static_cast<ssize_t>(kFieldsEnd))
        return std::nullopt;
    return stamp_of(segment);
}

std::optional<Snapshot> read_topic(TopicOpener &opener, const std::string &topic, Problem &problem)
{
    const UniqueFd fd = opener.open_any(topic, problem);
    if (!fd)
        return std::nullopt;
    struct stat status;
    auto snapshot =
        fstat(fd.get(), &status) == 0 ? read_from(FileSource(fd), status.st_ino) : std::nullopt;
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
