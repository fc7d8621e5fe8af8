// The segment: the 4080-byte file that holds one topic's value. docs/segment-format.md draws it.
// Every process maps the whole file read-write and shared, so a field here can change at any moment
// and is read and written through support/field.h alone, whatever another process put into it.
#pragma once

#include "kp.h"
#include "support/field.h"
#include "support/log.h"
#include "support/path.h"
#include "support/unique_fd.h"

#include <cstddef>
#include <cstring>
#include <optional>
#include <semaphore.h>
#include <sys/time.h>
#include <type_traits>

namespace kp {

constexpr const char *kStoreRoot = "/dev/shm/zu-kp";

constexpr uint32_t kSegmentSize = 4080;
constexpr uint32_t kValueAreaSize = 4004;

// Logged at DEBUG by every function that needs what only a provider can declare.
constexpr const char *kUndeclared =
    "shm is invalid. tag size and tag type should be set by provider.\n";

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

inline bool is_valid(const Segment &segment)
{
    return load_relaxed(segment.state.flags) & kValid;
}

// The bytes of the stored value, never more than the value area holds whatever the field says.
inline uint32_t stored_value_size(const Segment &segment)
{
    const uint32_t size = load_relaxed(segment.written_value_size);
    return size < kValueAreaSize ? size : kValueAreaSize;
}

// Stores a result where the caller wants one.
template <typename T> void give(T *output, T value)
{
    if (output)
        *output = value;
}

// Hides a size from the compiler, which would otherwise see its bound and replace the C library's
// functions by string instructions, many times as slow.
inline std::size_t unbounded(std::size_t size)
{
    asm("" : "+r"(size));
    return size;
}

// Calls `action` with the size, as a constant for the small values that most topics have.
template <typename Action>
[[gnu::always_inline]] inline auto with_size(uint32_t size, Action action)
{
    switch (size) {
    case 1:
        return action(std::integral_constant<uint32_t, 1>());
    case 2:
        return action(std::integral_constant<uint32_t, 2>());
    case 4:
        return action(std::integral_constant<uint32_t, 4>());
    case 8:
        return action(std::integral_constant<uint32_t, 8>());
    default:
        return action(size);
    }
}

[[gnu::always_inline]] inline void copy_bytes(void *to, const void *from, uint32_t size)
{
    with_size(size, [=](auto count) {
        if constexpr (std::is_integral_v<decltype(count)>)
            std::memcpy(to, from, unbounded(count));
        else
            std::memcpy(to, from, count);
    });
}

inline bool are_equal(const void *left, const void *right, uint32_t size)
{
    return with_size(size, [=](auto count) {
        if constexpr (std::is_integral_v<decltype(count)>)
            return std::memcmp(left, right, unbounded(count)) == 0;
        else
            return std::memcmp(left, right, count) == 0;
    });
}

// Stores a value with its size; the caller has checked that it fits the value area.
inline void store_value(Segment &segment, const void *value, uint32_t size)
{
    copy_bytes(segment.value, value, size);
    store_relaxed(segment.written_value_size, size);
    store_relaxed(segment.state.flags,
                  static_cast<uint8_t>(load_relaxed(segment.state.flags) | kHasValue));
}

// The segment's path below the store's root. Refuses, with a log line under the caller's name, a
// topic with a level "..", which would leave the store. A path that is too long is cut.
std::optional<PathBuffer> segment_path(const char *topic, LogSite site = LogSite::current());

// Opens a segment file; O_NOFOLLOW and O_CLOEXEC are added to the flags.
UniqueFd open_segment(const char *path, int flags);

// Gives the file its size and reserves its page, so that a full file system is an error here and
// not a fatal signal at the first store. False with errno set.
bool size_segment_file(const UniqueFd &fd);

// Maps an open segment file; null with errno set.
Segment *map_segment(const UniqueFd &fd);

} // namespace kp

// A handle on one topic's segment. Its user serialises the calls on it, but a change callback may
// look at it while another thread writes, so `last_update_ts` is read and written atomically.
struct kp_shm_t {
    int32_t fd; // closed as soon as the file is mapped; the number is kept but means nothing
    kp::Segment *mem;
    uint64_t last_update_ts; // last_write_ts of the value last read or written here
};

static_assert(offsetof(kp_shm_t, fd) == 0);
static_assert(offsetof(kp_shm_t, mem) == 8);
static_assert(offsetof(kp_shm_t, last_update_ts) == 16);
static_assert(offsetof(kp_topic_node_t, topic) == 0);
static_assert(offsetof(kp_topic_node_t, next) == 8);

namespace kp {

// The segment behind a handle once a provider has declared it, else null.
inline Segment *declared_segment(const kp_shm_t *shm)
{
    return shm && shm->mem && is_valid(*shm->mem) ? shm->mem : nullptr;
}

// The wall clock in microseconds since the Unix epoch.
inline uint64_t wall_clock_us()
{
    timeval now;
    (void)gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
}

} // namespace kp

extern "C" {

// Makes the directories above a segment's file. Returns 0, or -1 when out of memory; a directory
// that cannot be made shows when the file is opened.
KP_API int32_t kp_mkdir(const char *path);

// Creates the file behind a segment handle, opens and sizes it; the descriptor goes to `fd`.
KP_API int32_t kp_new_shm(kp_shm_t *shm, const char *path);
}
