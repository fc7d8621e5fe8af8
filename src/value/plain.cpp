// Writing and reading through an open segment, without a lock or, but for the wait for a writer, a
// system call. The `writing` byte is all that readers and writer share: a reader that finds it
// clear copies without a further check, so a write that begins during the copy can tear the value.
#include "value/plain.h"

#include "value/checks.h"
#include "value/doubt.h"

#include <unistd.h>

namespace kp {

namespace {

// Waits for a writer that was found at work; false when it does not end.
[[gnu::cold]] bool wait_for_writer(const Segment &segment)
{
    for (int pauses = 1;; ++pauses) {
        (void)usleep(kWriterPauseUs);
        if (pauses == kWriterTries)
            return false;
        if (!is_being_written(segment))
            return true;
    }
}

} // namespace

} // namespace kp

using namespace kp;

int32_t kp_shm_check_written_value_size(const Segment &segment, uint32_t size)
{
    const uint32_t max_value_size = load_relaxed(segment.max_value_size);
    switch (find_size_fault(segment, size)) {
    case SizeFault::none:
        return 0;
    case SizeFault::differs:
        KP_WARN("written_value_size(%d) != max_value_size(%d)\n", static_cast<int32_t>(size),
                static_cast<int32_t>(max_value_size));
        return -1;
    case SizeFault::too_large:
        KP_WARN("written_value_size(%d) > max_value_size(%d)\n", static_cast<int32_t>(size),
                static_cast<int32_t>(std::min(max_value_size, kValueAreaSize)));
        return -1;
    }
    return -1;
}

int32_t kp_shm_write(kp_shm_t *shm, const void *value, uint32_t size, uint64_t timestamp,
                     uint8_t quality, uint64_t source_ts)
{
    Segment *segment = segment_for_value(shm);
    if (!segment)
        return -1;
    if (find_size_fault(*segment, size) != SizeFault::none &&
        kp_shm_check_written_value_size(*segment, size) < 0) [[unlikely]]
        return -1;
    return store_write(*shm, *segment, value, size, timestamp, quality, source_ts);
}

int32_t kp_shm_read(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                    uint8_t *quality, uint64_t *source_ts)
{
    const Segment *segment = segment_for_value(shm);
    if (!segment || !value_fits(*segment, buffer_size))
        return -1;
    if (is_being_written(*segment) && !wait_for_writer(*segment)) {
        KP_INFO("shm read fail\n");
        return -1;
    }

    give(timestamp, read_value(*shm, *segment, buffer, buffer_size));
    give(quality, load_relaxed(segment->quality));
    give(source_ts, load_relaxed(segment->source_ts));
    return static_cast<int32_t>(readable_size(*segment, buffer_size));
}

int32_t kp_shm_get_read_info(kp_shm_t *shm, uint32_t *value_type, uint32_t *size,
                             uint32_t *extra_info)
{
    const Segment *segment = segment_for_query(shm);
    if (!segment)
        return -1;
    give(value_type, load_relaxed(segment->value_type));
    give(size, load_relaxed(segment->written_value_size));
    give(extra_info, load_relaxed(segment->extra_info));
    return 0;
}

int32_t kp_shm_get_max_value_size(kp_shm_t *shm, uint32_t *max_value_size)
{
    const Segment *segment = segment_for_query(shm);
    if (!segment)
        return -1;
    if (is_null(max_value_size, "max_value_size is null\n"))
        return -1;
    *max_value_size = load_relaxed(segment->max_value_size);
    return 0;
}

int32_t kp_shm_get_last_write_timestamp(kp_shm_t *shm, uint64_t *timestamp)
{
    if (is_null(shm, "shm is null\n"))
        return -1;
    if (is_null(shm->mem, "shm memory is not exist\n"))
        return -1;
    give(timestamp, load_relaxed(shm->mem->last_write_ts));
    return 0;
}

int32_t kp_shm_has_read(kp_shm_t *shm)
{
    if (is_null(shm, "shm is null\n"))
        return 1;
    return has_seen_last_write(*shm) ? 1 : 0;
}

int32_t kp_shm_has_value(kp_shm_t *shm)
{
    if (is_null(shm, "shm is null\n"))
        return 0;
    return load_relaxed(shm->mem->state.flags) & kHasValue ? 1 : 0;
}

int32_t kp_shm_get_quality(kp_shm_t *shm)
{
    if (is_null(shm, "shm is null\n"))
        return 0;
    return load_relaxed(shm->mem->quality);
}
