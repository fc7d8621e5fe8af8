// The segment: the 4080-byte file that holds one topic's value. docs/segment-format.md draws it.
// Every process maps the whole file read-write and shared, so a field here can change at any
// moment, and another process may put anything into it. Fields are read and written through
// layout/field.h alone; the bytes of a value are copied and compared as a whole (store/bytes.h),
// and the tools copy a whole segment and then prove the copy (tools/common/store/whole_copy.h).
#pragma once

#include "layout/field.h"

#include <cstddef>
#include <cstdint>
#include <semaphore.h>
#include <type_traits>

namespace kp {

constexpr const char *kStoreRoot = "/dev/shm/zu-kp";

constexpr uint32_t kSegmentSize = 4080;
constexpr uint32_t kValueAreaSize = 4004;

constexpr uint8_t kValid = 1;    // the provider has set type and size
constexpr uint8_t kHasValue = 2; // a value has been written since

// Both counts in one word, so that a change of one and the sum of both belong together.
struct alignas(2) ReferenceCounts {
    uint8_t providers;
    uint8_t consumers;

    uint32_t sum() const
    {
        return static_cast<uint32_t>(providers) + consumers;
    }
};

// `writing` and `flags` in one word, so that an instant write sets both with one store.
struct alignas(2) WriteState {
    uint8_t writing; // 1 while a writer is copying a value in
    uint8_t flags;   // kValid, kHasValue; the other bits are preserved
};

struct Segment {
    sem_t sem; // process-shared; guards nothing but the counts
    uint64_t last_write_ts;
    ReferenceCounts refs; // open handles of each role in all processes
    WriteState state;
    uint32_t value_type;
    uint32_t max_value_size;
    uint32_t extra_info;
    uint8_t quality;
    uint8_t reserved[7];
    uint64_t source_ts;
    uint32_t written_value_size;
    uint8_t value[kValueAreaSize];
};

static_assert(sizeof(sem_t) == 32, "the semaphore's room is part of the file format");
static_assert(sizeof(ReferenceCounts) == 2 && sizeof(WriteState) == 2);
static_assert(offsetof(Segment, sem) == 0);
static_assert(offsetof(Segment, last_write_ts) == 32);
static_assert(offsetof(Segment, refs) + offsetof(ReferenceCounts, providers) == 40);
static_assert(offsetof(Segment, refs) + offsetof(ReferenceCounts, consumers) == 41);
static_assert(offsetof(Segment, state) + offsetof(WriteState, writing) == 42);
static_assert(offsetof(Segment, state) + offsetof(WriteState, flags) == 43);
static_assert(offsetof(Segment, value_type) == 44);
static_assert(offsetof(Segment, max_value_size) == 48);
static_assert(offsetof(Segment, extra_info) == 52);
static_assert(offsetof(Segment, quality) == 56);
static_assert(offsetof(Segment, reserved) == 57);
static_assert(offsetof(Segment, source_ts) == 64);
static_assert(offsetof(Segment, written_value_size) == 72);
static_assert(offsetof(Segment, value) == 76);
static_assert(sizeof(Segment) == kSegmentSize);
static_assert(std::is_trivially_copyable_v<Segment>);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the file format is little-endian");

// Whoever finds the flag set sees also what the provider declared before it set the flag.
inline bool is_valid(const Segment &segment)
{
    return load_acquire(segment.state.flags) & kValid;
}

// The size of the stored value in bytes: never more than the value area holds, whatever the field
// says.
inline uint32_t stored_value_size(const Segment &segment)
{
    const uint32_t size = load_relaxed(segment.written_value_size);
    return size < kValueAreaSize ? size : kValueAreaSize;
}

} // namespace kp
