// Creating and destroying tags. The dictionary is changed under the handle's lock; segments are
// opened and new tags announced outside it.
#include "core/tag.h"

#include "core/handle.h"
#include "support/cancellation.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/memory.h"
#include "support/path.h"

#include <cerrno>
#include <cstring>

namespace kp {

namespace {

constexpr uint32_t kBuckets = KP_BUCKET_COUNT;

// Takes a tag out of the dictionary, if it is there, and frees it. The caller holds the lock.
void release_tag(kp_t &handle, kp_tag_t *tag)
{
    const MallocPtr<kp_tag_t> owner(tag);
    const MallocPtr<char> topic(tag->topic);
    (void)kp_dict_remove_tag(handle.dict, tag, tag->hash);
    if (tag->shm)
        (void)kp_shm_destroy(tag->shm, tag->topic, tag->role);
}

// Enters a tag in the dictionary; releases it and returns null when that fails.
kp_tag_t *enter_tag(kp_t &handle, kp_tag_t *tag)
{
    const MutexLock lock(handle.mutex);
    if (kp_dict_add_tag(handle.dict, tag, tag->hash) == 0)
        return tag;
    release_tag(handle, tag); // not kp_tag_destroy(), which takes the lock that is held here
    return nullptr;
}

void announce(kp_t &handle, const char *topic)
{
    (void)format_text(handle.new_tag_info.topic, "%s", topic); // a topic that is too long is cut
    handle.new_tag_info.type = KP_MSG_NEW_TAG;
    (void)kp_notify_send(handle.notify, &handle.new_tag_info, kNewTagInfoSize);
}

} // namespace

kp_tag_t *make_consumer_tag(kp_t &handle, const char *topic, uint64_t seen_ts)
{
    kp_tag_t *tag = kp_tag_new(&handle, topic, KP_ROLE_CONSUMER);
    if (!tag)
        return nullptr;
    kp_shm_set_last_update_ts(tag->shm, seen_ts);
    return enter_tag(handle, tag);
}

} // namespace kp

using namespace kp;

kp_tag_t *kp_tag_new(kp_t *handle, const char *topic, uint32_t role)
{
    if (is_null(handle, "kp is null\n"))
        return nullptr;
    if (is_null(topic, "topic is null\n"))
        return nullptr;
    auto tag = make_zeroed<kp_tag_t>();
    if (!tag) {
        KP_ERROR("kp_tag_provider_new: malloc kp_tag_t: %s\n", std::strerror(errno));
        return nullptr;
    }
    auto copy = copy_text(topic);
    if (!copy) {
        const int cause = errno;
        (void)kp_tag_destroy(handle, tag.release());
        KP_ERROR("kp_tag_provider_new: malloc topic: %s\n", std::strerror(cause));
        return nullptr;
    }
    tag->topic = copy.release();
    tag->hash = kp_hash(topic);
    KP_TRACE("<%u>%s\r\n", tag->hash, topic);
    tag->shm = kp_shm_new(topic, role);
    if (!tag->shm) {
        const KeepErrno keep;
        (void)kp_tag_destroy(handle, tag.release());
        return nullptr;
    }
    tag->role = role;
    return tag.release();
}

kp_tag_t *kp_tag_provider_new(kp_t *handle, const char *topic, uint32_t value_type,
                              uint32_t value_size, uint32_t extra_info)
{
    const NoCancellation scope;
    if (is_null(handle, "kp is null\n"))
        return nullptr;
    if (is_null(topic, "topic is null\n"))
        return nullptr;
    if (!kp_type2str(value_type)) {
        KP_ERROR("value_type is invalid\n");
        return nullptr;
    }
    if (value_size > KP_MAX_VALUE_SIZE) {
        KP_ERROR("value size is invalid\n");
        return nullptr;
    }
    const uint32_t size = kp_get_value_size(value_type, value_size);
    if (size == 0) {
        KP_ERROR("value size is invalid\n");
        return nullptr;
    }
    kp_tag_t *tag = kp_tag_new(handle, topic, KP_ROLE_PROVIDER);
    if (!tag)
        return nullptr;
    (void)kp_shm_init_source_params(tag->shm);
    (void)kp_shm_set_provider_info(tag->shm, value_type, size, extra_info);
    tag = enter_tag(*handle, tag);
    if (tag && kp_is_new_tag_notify_enabled(handle))
        announce(*handle, topic);
    return tag;
}

kp_tag_t *kp_tag_consumer_new(kp_t *handle, const char *topic)
{
    const NoCancellation scope;
    if (is_null(handle, "kp is null\n"))
        return nullptr;
    if (is_null(topic, "topic is null\n"))
        return nullptr;
    kp_tag_t *tag = kp_tag_new(handle, topic, KP_ROLE_CONSUMER);
    return tag ? enter_tag(*handle, tag) : nullptr;
}

int32_t kp_tag_destroy(kp_t *handle, kp_tag_t *tag)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(tag, "tag is null\n"))
        return -1;
    const MutexLock lock(handle->mutex);
    release_tag(*handle, tag);
    return 0;
}

int32_t kp_tags_destroy(kp_t *handle)
{
    const NoCancellation scope;
    if (is_null(handle, "kp is null\n"))
        return -1;
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket) {
        const kp_dict_entry *entry = kp_dict_lookup_entry_head(handle->dict, bucket);
        while (entry) {
            const kp_dict_entry *next = entry->next; // destroying the tag frees the entry
            if (entry->tag)
                (void)kp_tag_destroy(handle, entry->tag);
            entry = next;
        }
    }
    return 0;
}

int32_t kp_tag_set_read_callback(kp_tag_t *, kp_read_callback_t)
{
    KP_FATAL("read callback is not support on linux version of kp\n");
    return -1;
}

int32_t kp_tag_set_user_data(kp_tag_t *tag, void *data)
{
    if (!tag)
        return -1;
    tag->user_data = data;
    return 0;
}

void *kp_tag_get_user_data(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return nullptr;
    return tag->user_data;
}

const char *kp_tag_get_topic(kp_tag_t *tag)
{
    if (is_null(tag, "tag is null\n"))
        return nullptr;
    return tag->topic;
}
