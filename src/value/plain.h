// The plain write and the plain read. They are inline because a tag's write and read consist of
// little else. Each first asks whether anything stands in the way, and then does its work. If
// something does, the caller takes a slower way, whose functions find out again what it is and
// report it under their own names.
#pragma once

#include "layout/value_type.h"
#include "store/bytes.h"
#include "store/segment_file.h"

#include <algorithm>
#include <bit>

extern "C" {

// Says with 0 that a value of `size` bytes may be written, with -1 and a log line that it may not.
KP_API int32_t kp_shm_check_written_value_size(const kp::Segment &segment, uint32_t size);
}

namespace kp {

// Keeps `writing` set over a scope. It is visible before any store of the scope and cleared after
// all of them, which gives the byte its meaning on a machine that reorders stores.
class WriteMark {
  public:
    explicit WriteMark(Segment &segment) : segment_(segment)
    {
        store_relaxed<uint8_t>(segment_.state.writing, 1);
        order_stores();
    }
    WriteMark(const WriteMark &) = delete;
    WriteMark &operator=(const WriteMark &) = delete;
    ~WriteMark()
    {
        store_release<uint8_t>(segment_.state.writing, 0);
    }

  private:
    Segment &segment_;
};

// Bounds of the wait for a writer that is copying a value in.
constexpr int kWriterTries = 10;
constexpr uint32_t kWriterPauseUs = 10; // a write takes less than a microsecond

inline bool is_being_written(const Segment &segment)
{
    return load_acquire(segment.state.writing) == 1;
}

enum class SizeFault { none, differs, too_large };

// A segment may claim a maximum that its value area does not have.
inline SizeFault find_size_fault(const Segment &segment, uint32_t size)
{
    const uint32_t max_value_size = load_relaxed(segment.max_value_size);
    if (size == max_value_size) [[likely]]
        return size > kValueAreaSize ? SizeFault::too_large : SizeFault::none;
    if (!has_variable_size(load_relaxed(segment.value_type)))
        return SizeFault::differs;
    return size > std::min(max_value_size, kValueAreaSize) ? SizeFault::too_large : SizeFault::none;
}

// The stores of a write whose size has no fault. Returns the bytes written.
[[gnu::always_inline]] inline int32_t store_write(kp_shm_t &shm, Segment &segment,
                                                  const void *value, uint32_t size,
                                                  uint64_t timestamp, uint8_t quality,
                                                  uint64_t source_ts)
{
    store_release(segment.last_write_ts, timestamp); // after the whole of the write before
    const WriteMark mark(segment);                   // readers wait until the end of this scope

    if (quality != KP_QUALITY_KEEP)
        store_relaxed(segment.quality, quality);
    store_relaxed(segment.source_ts, source_ts);
    store_relaxed(shm.last_update_ts, timestamp);
    if (!value) [[unlikely]]
        return 0;

    store_value(segment, value, size);
    return static_cast<int32_t>(size);
}

// Whether a value is declared and nobody is writing it, in one comparison of the whole word. If
// `writing` is neither 0 nor 1 nobody writes, but this says false and leaves it to kp_shm_read().
inline bool is_declared_and_quiet(WriteState state)
{
    constexpr auto kMask = std::bit_cast<uint16_t>(WriteState{0xff, kValid});
    constexpr auto kQuiet = std::bit_cast<uint16_t>(WriteState{0, kValid});
    return (std::bit_cast<uint16_t>(state) & kMask) == kQuiet;
}

// True when a value is declared and there, fits the buffer and is not being written. One load tells
// that it is declared and that nobody is writing it; all else is read after this load.
inline bool can_be_read(const Segment &segment, uint32_t buffer_size)
{
    if (!is_declared_and_quiet(load_acquire(segment.state)))
        return false;
    const uint32_t size = load_relaxed(segment.written_value_size);
    return size != 0 && size <= buffer_size;
}

// The size of the value as it is now, but no more than the buffer holds: the value may have grown
// since can_be_read() looked.
inline uint32_t readable_size(const Segment &segment, uint32_t buffer_size)
{
    return std::min(stored_value_size(segment), buffer_size);
}

// Marks the value as seen and copies it into the buffer (optional). Returns its timestamp.
[[gnu::always_inline]] inline uint64_t read_value(kp_shm_t &shm, const Segment &segment,
                                                  void *buffer, uint32_t buffer_size)
{
    const uint64_t last_write_ts = load_relaxed(segment.last_write_ts);
    store_relaxed(shm.last_update_ts, last_write_ts);
    if (buffer)
        copy_bytes(buffer, segment.value, readable_size(segment, buffer_size));
    return last_write_ts;
}

} // namespace kp
