// Writing and reading through an open segment, without a lock or, but for the wait for a writer, a
// system call. The `writing` byte is all that readers and writer share: a reader that finds it
// clear copies without a further check, so a write that begins during the copy can tear the value.
#include "store/buffered.h"

#include "store/checks.h"
#include "support/value_type.h"

#include <algorithm>
#include <unistd.h>

namespace kp {

namespace {

// Keeps `writing` set over a scope. It is visible before any store of the scope and cleared after
// all of them, which gives the byte its meaning on a machine that reorders stores.
class WriteMark {
  public:
    explicit WriteMark(Segment &segment) : writing_(segment.state.writing)
    {
        store_relaxed(writing_, 1);
        order_stores();
    }
    WriteMark(const WriteMark &) = delete;
    WriteMark &operator=(const WriteMark &) = delete;
    ~WriteMark()
    {
        store_release(writing_, 0);
    }

  private:
    uint8_t &writing_;
};

bool writer_is_done(const Segment &segment)
{
    for (int tries = 0; tries < kWriterTries; ++tries) {
        if (load_acquire(segment.state.writing) != 1) [[likely]]
            return true;
        (void)usleep(kWriterPauseUs);
    }
    return false;
}

} // namespace

} // namespace kp

using namespace kp;

int32_t kp_shm_check_written_value_size(const Segment &segment, uint32_t size)
{
    const uint32_t max_value_size = load_relaxed(segment.max_value_size);
    const bool variable = has_variable_size(load_relaxed(segment.value_type));
    if (!variable && size != max_value_size) {
        KP_WARN("written_value_size(%d) != max_value_size(%d)\n", static_cast<int32_t>(size),
                static_cast<int32_t>(max_value_size));
        return -1;
    }
    // A segment may claim a maximum that its value area does not have.
    const uint32_t most = std::min(max_value_size, kValueAreaSize);
    if (size > most) {
        KP_WARN("written_value_size(%d) > max_value_size(%d)\n", static_cast<int32_t>(size),
                static_cast<int32_t>(most));
        return -1;
    }
    return 0;
}

int32_t kp_shm_write(kp_shm_t *shm, const void *value, uint32_t size, uint64_t timestamp,
                     uint8_t quality, uint64_t source_ts)
{
    Segment *segment = segment_for_value(shm);
    if (!segment || kp_shm_check_written_value_size(*segment, size) < 0)
        return -1;

    store_release(segment->last_write_ts, timestamp); // after the whole of the write before
    const WriteMark mark(*segment);                   // readers wait until the end of this scope

    if (quality != KP_QUALITY_KEEP)
        store_relaxed(segment->quality, quality);
    store_relaxed(segment->source_ts, source_ts);
    store_relaxed(shm->last_update_ts, timestamp);
    if (!value)
        return 0;

    store_value(*segment, value, size);
    return static_cast<int32_t>(size);
}

int32_t kp_shm_read(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                    uint8_t *quality, uint64_t *source_ts)
{
    const Segment *segment = segment_for_value(shm);
    if (!segment || !value_fits(*segment, buffer_size))
        return -1;
    if (!writer_is_done(*segment)) {
        KP_INFO("shm read fail\n");
        return -1;
    }

    const uint64_t last_write_ts = load_relaxed(segment->last_write_ts);
    store_relaxed(shm->last_update_ts, last_write_ts);
    // The size is read again, and may have grown: no more than the buffer holds is copied or told.
    if (buffer)
        copy_bytes(buffer, segment->value, std::min(stored_value_size(*segment), buffer_size));
    give(timestamp, last_write_ts);
    give(quality, load_relaxed(segment->quality));
    give(source_ts, load_relaxed(segment->source_ts));
    return static_cast<int32_t>(std::min(stored_value_size(*segment), buffer_size));
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
    if (!max_value_size) {
        KP_ERROR("max_value_size is null\n");
        return -1;
    }
    *max_value_size = load_relaxed(segment->max_value_size);
    return 0;
}

int32_t kp_shm_get_last_write_timestamp(kp_shm_t *shm, uint64_t *timestamp)
{
    if (!shm) {
        KP_ERROR("shm is null\n");
        return -1;
    }
    if (!shm->mem) {
        KP_ERROR("shm memory is not exist\n");
        return -1;
    }
    give(timestamp, load_relaxed(shm->mem->last_write_ts));
    return 0;
}

int32_t kp_shm_has_read(kp_shm_t *shm)
{
    if (!shm) {
        KP_ERROR("shm is null\n");
        return 1;
    }
    const uint64_t ahead =
        load_relaxed(shm->last_update_ts) - load_relaxed(shm->mem->last_write_ts);
    return static_cast<int64_t>(ahead) >= 0 ? 1 : 0;
}

int32_t kp_shm_has_value(kp_shm_t *shm)
{
    if (!shm) {
        KP_ERROR("shm is null\n");
        return 0;
    }
    return load_relaxed(shm->mem->state.flags) & kHasValue ? 1 : 0;
}

int32_t kp_shm_get_quality(kp_shm_t *shm)
{
    if (!shm) {
        KP_ERROR("shm is null\n");
        return 0;
    }
    return load_relaxed(shm->mem->quality);
}
