// Writing and reading values through tags and by topic. What is added to the store here: the time,
// the quality of a plain write, the size rule and the marks in the handle's change notice.
#include "core/handle.h"
#include "core/tag.h"
#include "support/clock.h"
#include "support/log.h"
#include "value/consistent.h"
#include "value/plain.h"

#include <cstring>

namespace kp {

namespace {

void mark_written(kp_t &handle, uint32_t hash)
{
    handle.write_info.bitmap[bitmap_byte(hash)] |= bitmap_bit(hash);
}

// The bytes that a write to a declared segment stores, by its type; 0 when there are none.
[[gnu::always_inline]] inline uint32_t size_to_write(const Segment &segment, uint32_t size)
{
    const uint32_t value_type = load_relaxed(segment.value_type);
    return value_type < kValueTypeCount ? size_of_known_type(value_type, size) : 0;
}

// Logs why size_to_write() gave 0. It finds out the reason again, so that a write that succeeds
// does not have to pass on its site.
[[gnu::cold, gnu::noinline]] int32_t refuse_write(const kp_tag_t &tag, LogSite site)
{
    uint32_t value_type = 0;
    if (kp_shm_get_read_info(tag.shm, &value_type, nullptr, nullptr) < 0) { // says why
        KP_LOG_AT(KP_LEVEL_ERROR, site, "get tag(%s) value type fail\n", tag.topic);
        return -1;
    }
    (void)kp_get_value_size(value_type, 0); // says which type is unknown
    KP_LOG_AT(KP_LEVEL_ERROR, site, "value size is invalid\n");
    return -1;
}

// Writes through the store's own checks, which say what is wrong with the size.
[[gnu::noinline]] int32_t write_checked(kp_t &handle, const kp_tag_t &tag, const void *value,
                                        uint32_t size, uint64_t now, uint8_t quality,
                                        uint64_t source_ts)
{
    const int32_t written = kp_shm_write(tag.shm, value, size, now, quality, source_ts);
    if (written != -1)
        mark_written(handle, tag.hash);
    return written;
}

// Writes a value of the size that its type gives and marks it for the next notice.
[[gnu::always_inline]] inline int32_t write_by_type(kp_t &handle, const kp_tag_t &tag,
                                                    const void *value, uint32_t size, uint64_t now,
                                                    uint8_t quality, uint64_t source_ts,
                                                    LogSite site = LogSite::current())
{
    Segment *segment = declared_segment(tag.shm);
    const uint32_t value_size = segment ? size_to_write(*segment, size) : 0;
    if (value_size == 0) [[unlikely]]
        return refuse_write(tag, site);
    if (find_size_fault(*segment, value_size) != SizeFault::none) [[unlikely]]
        return write_checked(handle, tag, value, value_size, now, quality, source_ts);
    mark_written(handle, tag.hash);
    return store_write(*tag.shm, *segment, value, value_size, now, quality, source_ts);
}

} // namespace

} // namespace kp

using namespace kp;

// Without a stack protector, which costs a fortieth of a write: the time is all that lies on the
// stack.
__attribute__((no_stack_protector)) int32_t kp_tag_write(kp_t *handle, kp_tag_t *tag,
                                                         const void *value, uint32_t size)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(tag, "tag is null\n"))
        return -1;
    const uint64_t now = wall_clock_us();
    return write_by_type(*handle, *tag, value, size, now, KP_QUALITY_GOOD, now);
}

int32_t kp_tag_write_with_timestamp(kp_t *handle, kp_tag_t *tag, const void *value, uint32_t size,
                                    uint64_t timestamp)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(tag, "tag is null\n"))
        return -1;
    if (is_null(value, "value is null\n"))
        return -1;
    if (timestamp == 0)
        return -1;
    return write_checked(*handle, *tag, value, size, timestamp, KP_QUALITY_GOOD, timestamp);
}

int32_t kp_tag_write_with_source_params(kp_t *handle, kp_tag_t *tag, const void *value,
                                        uint32_t size, uint32_t quality, uint64_t source_ts)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(tag, "tag is null\n"))
        return -1;
    return write_by_type(*handle, *tag, value, size, wall_clock_us(), static_cast<uint8_t>(quality),
                         source_ts);
}

// Opens and closes the file, beside which its own instructions cost nothing: compiled for size.
[[gnu::cold]] int32_t kp_tag_instant_write(kp_t *handle, const char *topic, const void *value,
                                           uint32_t value_type, uint32_t size, uint8_t quality,
                                           uint64_t source_ts, uint32_t extra_info)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(topic, "topic is null\n"))
        return -1;
    if (size > KP_MAX_VALUE_SIZE) {
        KP_ERROR("value size is invalid\n");
        return -1;
    }
    const uint32_t value_size = kp_get_value_size(value_type, size);
    if (value_size == 0) {
        KP_ERROR("value size is invalid\n");
        return -1;
    }
    const int32_t result = kp_shm_instant_write(topic, value, value_type, value_size,
                                                wall_clock_us(), quality, source_ts, extra_info);
    if (result == -1)
        return -1;
    mark_written(*handle, kp_hash(topic));
    (void)kp_tag_notify(handle);
    return result;
}

int32_t kp_tag_notify(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    handle->write_info.type = KP_MSG_WRITE_INFO;
    if (kp_notify_send(handle->notify, &handle->write_info, kWriteInfoSize) != 0) {
        KP_ERROR("ret is null\n"); // the marks stay and go out with the next notice
        return -1;
    }
    std::memset(handle->write_info.bitmap, 0, sizeof(handle->write_info.bitmap));
    return 0;
}

int32_t kp_tag_read(kp_tag_t *tag, void *buffer, uint32_t buffer_size)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    if (is_null(buffer, "value is null\n"))
        return -1;
    const Segment *segment = mapped_segment(tag->shm);
    if (!segment || !can_be_read(*segment, buffer_size)) [[unlikely]] // waits, or says why not
        return kp_shm_read(tag->shm, buffer, buffer_size, nullptr, nullptr, nullptr);
    (void)read_value(*tag->shm, *segment, buffer, buffer_size);
    return static_cast<int32_t>(readable_size(*segment, buffer_size));
}

int32_t kp_tag_read_with_timestamp(kp_tag_t *tag, void *buffer, uint32_t buffer_size,
                                   uint64_t *timestamp)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    return kp_shm_read(tag->shm, buffer, buffer_size, timestamp, nullptr, nullptr);
}

int32_t kp_tag_read_with_source_params(kp_tag_t *tag, void *buffer, uint32_t buffer_size,
                                       uint32_t *quality, uint64_t *source_ts)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    uint8_t stored_quality = 0;
    const int32_t result =
        kp_shm_read(tag->shm, buffer, buffer_size, nullptr, &stored_quality, source_ts);
    if (quality)
        *quality = stored_quality;
    return result;
}

int32_t kp_tag_read_consistent(kp_tag_t *tag, void *buffer, uint32_t buffer_size, uint32_t *quality,
                               uint64_t *timestamp, uint64_t *source_ts)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    uint8_t stored_quality = 0;
    const int32_t result =
        read_consistent(tag->shm, buffer, buffer_size, timestamp, &stored_quality, source_ts);
    if (quality)
        *quality = stored_quality;
    return result;
}

[[gnu::cold]] int32_t kp_tag_instant_read(const char *topic, void **value, uint32_t *value_type,
                                          uint32_t *size, uint8_t *quality, uint64_t *source_ts,
                                          uint32_t *extra_info)
{
    if (is_null(value, "value is null\n"))
        return -1;
    if (is_null(value_type, "value type is null\n"))
        return -1;
    if (is_null(size, "value size is null\n"))
        return -1;
    return kp_shm_instant_read(topic, value, value_type, size, nullptr, quality, source_ts,
                               extra_info);
}

uint64_t kp_get_timestamp_us(void)
{
    return kp_shm_get_timestamp_us();
}
