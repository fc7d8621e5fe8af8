// Questions about a tag or a topic that move no value.
#include "core/tag.h"

#include "support/log.h"
#include "value/doubt.h"

using namespace kp;

int32_t kp_tag_get_last_write_timestamp(kp_tag_t *tag, uint64_t *timestamp)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    return kp_shm_get_last_write_timestamp(tag->shm, timestamp);
}

int32_t kp_tag_get_value_info(kp_tag_t *tag, uint32_t *value_type, uint32_t *size,
                              uint32_t *extra_info)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    if (is_null(tag->shm, "shm is null\n"))
        return -1;
    return kp_shm_get_read_info(tag->shm, value_type, size, extra_info);
}

int32_t kp_tag_instant_get_value_info(const char *topic, uint32_t *value_type, uint32_t *size,
                                      uint32_t *extra_info)
{
    if (is_null(topic, "topic is null\n"))
        return -1;
    return kp_shm_instant_get_value_info(topic, value_type, size, extra_info);
}

int32_t kp_tag_get_max_value_size(kp_tag_t *tag, uint32_t *max_value_size)
{
    if (is_null(tag, "tag is null\n"))
        return -1;
    if (is_null(tag->shm, "shm is null\n"))
        return -1;
    return kp_shm_get_max_value_size(tag->shm, max_value_size);
}

int32_t kp_tag_instant_get_max_value_size(const char *topic, uint32_t *max_value_size)
{
    if (is_null(topic, "topic is null\n"))
        return -1;
    return kp_shm_instant_get_max_value_size(topic, max_value_size);
}

int32_t kp_tag_get_reference_count(const char *topic, uint32_t *providers, uint32_t *consumers)
{
    if (is_null(topic, "topic is null\n"))
        return -1;
    return kp_shm_get_reference_count(topic, providers, consumers);
}

int32_t kp_tag_has_read(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return 1;
    return kp_shm_has_read(tag->shm);
}

int32_t kp_tag_has_changed(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return 0;
    if (is_null(tag->shm, "shm is null\n"))
        return 0;
    return has_changed(*tag->shm) ? 1 : 0;
}

int32_t kp_tag_need_read(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return 0;
    if (kp_shm_get_quality(tag->shm) == KP_QUALITY_NONE)
        return 0;
    return kp_shm_has_read(tag->shm) == 0 ? 1 : 0;
}

int32_t kp_tag_has_value(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return 0;
    return kp_shm_has_value(tag->shm);
}
