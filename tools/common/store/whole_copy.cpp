#include "common/store/whole_copy.h"

#include "common/store/fault_guard.h"
#include "layout/field.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <time.h>
#include <unistd.h>

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

// Gives the end of the value, by the size in the copied fields.
std::size_t end_of(const SegmentCopy &copy)
{
    return kFieldsEnd + copy.value().size();
}

bool is_being_written(const SegmentCopy &copy)
{
    return copy.bytes[offsetof(Segment, state) + offsetof(WriteState, writing)] == 1;
}

// Compares what belongs to a write.
//
// Deliberate: here and in MappedSource::take() memcmp() and memcpy() touch fields that a writer may
// be storing, not the accesses of field.h. A copy may come out torn, which is expected: further
// looks and the mark, which does go through field.h, tell it. One access for each byte would make a
// look so much longer that a busy writer would leave no gap for it.
bool same_bytes(const uint8_t *source, const SegmentCopy &copy, std::size_t end)
{
    const uint8_t *known = copy.bytes.data();
    return std::memcmp(source + kFieldsStart, known + kFieldsStart, kCountsStart - kFieldsStart) ==
               0 &&
           std::memcmp(source + kCountsEnd, known + kCountsEnd, end - kCountsEnd) == 0;
}

CopyOutcome whole_if(bool is_whole)
{
    return is_whole ? CopyOutcome::whole : CopyOutcome::disturbed;
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
    CopyOutcome take(SegmentCopy &copy) const
    {
        const bool is_quiet = !is_marked();
        const auto *source = reinterpret_cast<const uint8_t *>(&segment_);
        std::memcpy(&copy.bytes[kFieldsStart], source + kFieldsStart, kFieldsEnd - kFieldsStart);
        order_loads();
        std::memcpy(&copy.bytes[kFieldsEnd], source + kFieldsEnd, copy.value().size());
        order_loads();
        return whole_if(is_quiet && !is_marked());
    }
    CopyOutcome compare(const SegmentCopy &copy) const
    {
        const bool is_quiet = !is_marked();
        const bool same = is_quiet && same_bytes(reinterpret_cast<const uint8_t *>(&segment_), copy,
                                                 end_of(copy));
        order_loads();
        return whole_if(same && !is_marked());
    }

  private:
    bool is_marked() const
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
    CopyOutcome take(SegmentCopy &copy) const
    {
        if (pread(fd_.get(), copy.bytes.data(), copy.bytes.size(), 0) != kSegmentSize)
            return CopyOutcome::no_segment;
        return whole_if(!is_being_written(copy));
    }
    CopyOutcome compare(const SegmentCopy &copy) const
    {
        SegmentCopy again;
        const std::size_t end = end_of(copy);
        if (pread(fd_.get(), again.bytes.data(), end, 0) != static_cast<ssize_t>(end))
            return CopyOutcome::no_segment;
        return whole_if(!is_being_written(again) && same_bytes(again.bytes.data(), copy, end));
    }

  private:
    const UniqueFd &fd_;
};

// Makes one attempt. Even a copy that a writer has disturbed has fields to show.
template <typename Source> CopyOutcome attempt(const Source &source, SegmentCopy &copy)
{
    CopyOutcome outcome = source.take(copy);
    for (int count = 1; count < kLooks && outcome == CopyOutcome::whole; ++count)
        outcome = source.compare(copy);
    return outcome;
}

void pause_briefly()
{
    const timespec pause{0, kPauseNs};
    (void)nanosleep(&pause, nullptr);
}

uint64_t timestamp_of(const SegmentCopy &copy)
{
    return copy.segment().last_write_ts;
}

template <typename Source>
CopyTaken take_patiently(const Source &source, SegmentCopy &copy, int most_pauses)
{
    std::memset(copy.bytes.data(), 0, kFieldsEnd);
    auto outcome = CopyOutcome::disturbed;
    std::optional<uint64_t> first;
    for (int pauses = 0;; ++pauses) {
        for (int count = 0; count < kAttemptsBeforePause && outcome == CopyOutcome::disturbed;
             ++count)
            if (!source.run([&] { outcome = attempt(source, copy); }))
                return {CopyOutcome::no_segment};
        if (!first)
            first = timestamp_of(copy);
        if (outcome != CopyOutcome::disturbed || pauses == most_pauses)
            return {outcome, timestamp_of(copy) != *first};
        pause_briefly();
    }
}

} // namespace

Segment SegmentCopy::segment() const
{
    Segment out;
    std::memcpy(&out, bytes.data(), sizeof(out));
    return out;
}

std::string_view SegmentCopy::value() const
{
    uint32_t size = 0;
    std::memcpy(&size, &bytes[offsetof(Segment, written_value_size)], sizeof(size));
    return {reinterpret_cast<const char *>(&bytes[kFieldsEnd]),
            std::min<std::size_t>(size, kValueAreaSize)};
}

CopyTaken take_whole_copy(const Segment &mapped, SegmentCopy &copy)
{
    return take_patiently(MappedSource(mapped), copy, kPauses);
}

CopyTaken take_whole_copy(const UniqueFd &file, SegmentCopy &copy, Patience patience)
{
    return take_patiently(FileSource(file), copy, patience == Patience::some ? kPauses : 0);
}

} // namespace kp::tool
