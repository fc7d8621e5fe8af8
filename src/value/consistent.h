// One attempt to read a value that was whole at one moment, written so that a test can play a
// writer between any two of its steps.
//
// An attempt copies the value and then compares the copy with the segment. It looks at `writing`
// three times: before the copy, between copy and comparison, and after the comparison. Each look
// must find it clear.
//
// Why no torn value passes while one process writes the topic. A write stores `last_write_ts`, sets
// `writing`, stores quality, source timestamp, bytes and size, and clears `writing`. The mark is
// visible before any store that follows it and is cleared after all of them. So a look that finds
// it clear tells two things. What was read before the look is of writes that have ended, since
// who sees a part of a write sees its mark as well. What is read after the look is not older than
// the last of these writes. Let W1, W2 and W3 be the last writes that have ended for the first, the
// second and the third look. Then the copy holds parts of W1 to W2 and of no other write, and the
// comparison saw parts of W2 to W3 and of no other.
//  - If W1 is W2, the copy holds one write alone, so it is whole.
//  - If W2 is W3, the comparison saw one write alone. The copy is equal to it, so it is whole.
//  - So a torn copy needs at least two writes within one attempt: W2, of which a part came into the
//    copy, and W3, which must give back every byte that the copy has from before W2.
// The timestamp makes even these two writes rare. `last_write_ts` is stored after the write before
// is whole. It is read before the first look, which makes that write visible, and after the second
// and the third look, and must be the same each time. If timestamps never fall, both writes have
// this timestamp, so both took their time within one microsecond. A write that takes its time from
// the clock after that microsecond is always told apart: from then on no torn value can pass.
//
// What remains:
//  - Two writes within one attempt and one microsecond (or with one timestamp of the caller's own)
//    of which the second restores the bytes. An attempt takes the time of two copies, and each of
//    the writes takes the time of a copy and of a look at the clock.
//  - A writer that was stopped between its first two stores. The value is whole, but it is that of
//    the write before, and the timestamp is already the new one. The format offers one sign to tell
//    the two apart: a source timestamp that equals the timestamp. Without it the new write counts
//    as seen only as long as nothing of it appears, so it is not missed (doubt.h).
//  - Two processes that write one topic at once, since each clears the mark of the other.
//  - A provider that declares the topic again sets no mark: quality and source timestamp may be 0
//    already beside the last value. Its clearing of the bytes is seen by the flag that it clears
//    before, with a barrier behind it, since without that flag a value is all zeros.
#pragma once

#include "store/bytes.h"
#include "store/segment_file.h"

#include <algorithm>

namespace kp {

// What belongs to a value beside its bytes.
struct ValueHeader {
    uint64_t last_write_ts;
    uint64_t source_ts;
    uint32_t written_value_size;
    uint8_t quality;
    uint8_t flags;

    uint32_t size() const
    {
        return std::min(written_value_size, kValueAreaSize);
    }
};

// The accesses to the value's bytes. A test replaces them by its own, with a writer in between.
struct ValueAccess {
    static void copy(uint8_t *to, const uint8_t *from, uint32_t size)
    {
        copy_bytes(to, from, size);
    }
    static bool is_equal(const uint8_t *copy, const uint8_t *from, uint32_t size)
    {
        return are_equal(copy, from, size);
    }
    static void between_steps()
    {
    }
};

// Reads the header; false while a write is in progress.
template <typename Access>
bool read_quiet_header(const Segment &segment, ValueHeader &header, Access &access)
{
    const uint64_t last_write_ts = load_acquire(segment.last_write_ts);
    access.between_steps();
    const WriteState state = load_acquire(segment.state);
    access.between_steps();
    header = {last_write_ts, load_relaxed(segment.source_ts),
              load_relaxed(segment.written_value_size), load_relaxed(segment.quality), state.flags};
    return state.writing != 1;
}

// Whether no write is in progress and none has begun since the header was read, as far as its
// timestamp tells.
template <typename Access>
bool is_still_quiet(const Segment &segment, const ValueHeader &header, Access &access)
{
    order_loads();
    const WriteState state = load_acquire(segment.state);
    access.between_steps();
    return state.writing != 1 && state.flags == header.flags &&
           load_relaxed(segment.last_write_ts) == header.last_write_ts;
}

// The comparison with what was copied.
template <typename Access>
bool is_unchanged(const Segment &segment, const ValueHeader &header, const uint8_t *copy,
                  Access &access)
{
    return load_relaxed(segment.source_ts) == header.source_ts &&
           load_relaxed(segment.quality) == header.quality &&
           load_relaxed(segment.written_value_size) == header.written_value_size &&
           (!copy || access.is_equal(copy, segment.value, header.size()));
}

[[gnu::noinline]] inline bool is_all_zeros(const uint8_t *bytes, uint32_t size)
{
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

// A value that no write set is all zeros, unless a provider is just clearing it.
inline bool is_settled(const ValueHeader &header, const uint8_t *copy)
{
    return header.flags & kHasValue || !copy || is_all_zeros(copy, header.size());
}

// Reads the value into a buffer of `buffer_size` bytes, which may be null, and what belongs to it
// into `header`. False when a write got in the way, or there is no value or one that is too large;
// what was read means nothing then.
template <typename Access = ValueAccess>
bool try_consistent_read(const Segment &segment, uint8_t *buffer, uint32_t buffer_size,
                         ValueHeader &header, Access access = {})
{
    if (!read_quiet_header(segment, header, access))
        return false;
    if (header.written_value_size == 0 || header.written_value_size > buffer_size)
        return false;
    if (buffer)
        access.copy(buffer, segment.value, header.size());
    return is_still_quiet(segment, header, access) &&
           is_unchanged(segment, header, buffer, access) &&
           is_still_quiet(segment, header, access) && is_settled(header, buffer);
}

// Does what kp_shm_read() does, but gives only a value that was whole at one moment, and marks it
// as seen only then. Logs under its caller's name. Gives up after about a millisecond.
int32_t read_consistent(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                        uint8_t *quality, uint64_t *source_ts, LogSite site = LogSite::current());

} // namespace kp
