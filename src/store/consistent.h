// One attempt to read a value that was whole at one moment, written so that a test can play a writer
// between any two of its steps.
//
// Why no torn value passes while one process writes the topic. A write stores `last_write_ts`, sets
// `writing`, then stores quality, source timestamp, bytes and size, and clears `writing`; the mark
// is visible before any store that follows it and cleared after all of them, and `last_write_ts` is
// stored after the write before is whole. Number the writes, and let C be those of which the copy,
// and D those of which the comparison, saw anything. An attempt sees `writing` clear three times:
//   1. before the copy, which makes write X and all before it visible: nothing in C is older than X;
//   2. between copy and comparison, clear because of write Y: nothing in C is newer than Y, since
//      who saw a part of a write sees its mark as well, and nothing in D is older than Y;
//   3. after the comparison, clear because of write Z: nothing in D is newer than Z.
// If X is Y, the copy saw one write alone. If Y is Z, the comparison did, and what it compared with
// that write was equal. Either way the copy is a whole value. So a torn copy needs two whole writes
// within the attempt, Y during the copy and Z during the comparison, and Z has to bring back every
// byte that the copy has from before Y. `last_write_ts`, read before 1 and after 2 and 3, must also
// be the same, so that timestamps which never fall are those of Y and of Z too: the two writes, and
// the one that X preceded, lie within one microsecond. A write that takes its time from the clock
// after that microsecond is over is always told apart, so from then on a torn value cannot pass.
//
// What remains:
//  - Two writes within one attempt and one microsecond (or with one timestamp of the caller's own)
//    of which the second restores the bytes. An attempt takes the time of two copies, and each of
//    the writes a copy as well as a look at the clock.
//  - A writer stopped between its first two stores: the value is whole, but is that of the write
//    before the timestamp. The format offers nothing to tell the two apart.
//  - Two processes that write one topic at once, since each clears the mark of the other.
//  - A provider that declares the topic again sets no mark: quality and source timestamp may be 0
//    already beside the last value. Its clearing of the bytes is seen by the flag that it clears
//    first, since without that flag a value is all zeros.
#pragma once

#include "store/segment.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace kp {

// What belongs to a value beside its bytes.
struct ValueHeader {
    uint64_t last_write_ts;
    uint64_t source_ts;
    uint32_t written_value_size;
    uint8_t quality;
    uint8_t flags;

    bool operator==(const ValueHeader &) const = default;

    uint32_t size() const
    {
        return std::min(written_value_size, kValueAreaSize);
    }
};

// The accesses to the value's bytes. A test replaces them by its own, with a writer in between.
struct ValueAccess {
    static void copy(uint8_t *to, const uint8_t *from, uint32_t size)
    {
        if (size != 0) // a null buffer is not to be passed on
            std::memcpy(to, from, size);
    }
    static bool is_equal(const uint8_t *copy, const uint8_t *from, uint32_t size)
    {
        return size == 0 || std::memcmp(copy, from, size) == 0;
    }
    static void between_steps()
    {
    }
};

// The header while no write is in progress.
template <typename Access>
std::optional<ValueHeader> quiet_header(const Segment &segment, Access &access)
{
    if (load_acquire(segment.state.writing) == 1)
        return std::nullopt;
    access.between_steps();
    return ValueHeader{load_relaxed(segment.last_write_ts), load_relaxed(segment.source_ts),
                       load_relaxed(segment.written_value_size), load_relaxed(segment.quality),
                       load_relaxed(segment.state.flags)};
}

// A value that no write set is all zeros, unless a provider is just clearing it.
inline bool is_settled(const ValueHeader &header, std::span<const uint8_t> copy)
{
    return header.flags & kHasValue || std::ranges::count(copy, 0) == std::ssize(copy);
}

// Reads the value into a buffer of `buffer_size` bytes, which may be null; nothing when a write got
// in the way or the value is none or too large.
template <typename Access = ValueAccess>
std::optional<ValueHeader> try_consistent_read(const Segment &segment, uint8_t *buffer,
                                               uint32_t buffer_size, Access access = {})
{
    const uint64_t last_write_ts = load_acquire(segment.last_write_ts);
    access.between_steps();
    const auto header = quiet_header(segment, access);
    if (!header || header->last_write_ts != last_write_ts)
        return std::nullopt;
    const uint32_t size = header->written_value_size;
    if (size == 0 || size > buffer_size)
        return std::nullopt;
    const uint32_t copied = buffer ? header->size() : 0;
    access.copy(buffer, segment.value, copied);
    order_loads();
    if (quiet_header(segment, access) != header)
        return std::nullopt;
    if (!access.is_equal(buffer, segment.value, copied))
        return std::nullopt;
    order_loads();
    if (quiet_header(segment, access) != header)
        return std::nullopt;
    if (!is_settled(*header, std::span(buffer, copied)))
        return std::nullopt;
    return header;
}

// kp_shm_read() but for the copy: gives only a value that was whole at one moment, and marks it as
// seen only then. Logs under its caller's name. Gives up after about a millisecond.
int32_t read_consistent(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                        uint8_t *quality, uint64_t *source_ts, LogSite site = LogSite::current());

} // namespace kp
