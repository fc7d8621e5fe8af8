// Subscribing to topics and patterns, and publishing by name. Runs on the application's threads
// and, for announced topics, on the receive thread.
#include "core/topic.h"

#include "core/handle.h"
#include "core/pattern.h"
#include "core/tag.h"
#include "layout/field.h"
#include "layout/value_type.h"
#include "support/cancellation.h"
#include "support/list.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/memory.h"

#include <array>
#include <cstring>

namespace kp {

namespace {

// When the process first subscribed, 0 before; set once. A value written later counts as not yet
// read by every tag made here, even if it was written before the tag existed.
uint64_t sub_start_ts = 0;

void note_first_subscription()
{
    if (load_relaxed(sub_start_ts) == 0)
        (void)replace_if(sub_start_ts, 0, kp_shm_get_timestamp_us());
}

// Records a subscription at the head of its list; false when out of memory.
bool record(kplist &list, const char *topic)
{
    auto copy = copy_text(topic);
    if (!copy || !insert_at_head(list, copy.get()))
        return false;
    (void)copy.release(); // the list's now
    return true;
}

// Makes the subscriptions of a list again. Deliberate: newest first, and each one goes to the head
// again, so the order is reversed every time; and a plain topic that a pattern covers drops out.
// The list itself stays, since the receive thread may be waiting for its lock.
void subscribe_again(kp_t *handle, kplist &list)
{
    for (kplist_node *node = take_chain(list); node;) {
        const MallocPtr<kplist_node> owner(node);
        const MallocPtr<char> topic(static_cast<char *>(node->data));
        (void)kp_sub_topic(handle, topic.get());
        node = node->next;
    }
}

// Waits while the receive thread makes a tag of an announced topic that a pattern covered a moment
// ago. Afterwards that tag is in the dictionary, where it can be destroyed.
void await_announced_tag(kp_t &handle)
{
    const MutexLock lock(handle.follow_mutex);
}

bool is_subscribed(kplist *list, const char *topic)
{
    const MutexLock lock(list->mutex);
    return kplist_find(list, str_equal, topic) != nullptr;
}

} // namespace

int str_equal(const void *key, const void *element)
{
    return std::strcmp(static_cast<const char *>(key), static_cast<const char *>(element)) == 0;
}

int match_sub_patterns(kp_t *handle, const char *topic)
{
    const auto covers = [](const void *key, const void *element) {
        return topic_match(static_cast<const char *>(element), static_cast<const char *>(key));
    };
    const MutexLock lock(handle->sub_patterns->mutex);
    return kplist_find(handle->sub_patterns, covers, topic) ? 1 : 0;
}

int sub_plain_topic(kp_t *handle, const char *topic)
{
    if (!handle) {
        write_plain("null kp\n");
        return -1;
    }
    {
        const MutexLock lock(handle->mutex); // another thread may be destroying tags
        if (kp_get_tag(handle, topic))
            return 0;
    }
    if (!make_consumer_tag(*handle, topic, load_relaxed(sub_start_ts))) {
        write_plain("kp_tag_consumer_new fail\n");
        return -1;
    }
    KP_DEBUG("create tag [%s]\n", topic);
    return 0;
}

} // namespace kp

using namespace kp;

int32_t kp_sub_topic(kp_t *handle, const char *topic)
{
    const NoCancellation scope;
    note_first_subscription();
    if (!handle)
        return 0;
    if (!topic)
        return -1;
    if (match_sub_patterns(handle, topic))
        return 0;
    if (is_pattern(topic))
        return record(*handle->sub_patterns, topic) ? sub_matched_topic(handle, topic) : -1;
    return record(*handle->sub_topics, topic) ? sub_plain_topic(handle, topic) : -1;
}

int32_t kp_sub_plain_topic(kp_t *handle, const char *topic)
{
    const NoCancellation scope;
    if (!handle)
        return sub_plain_topic(handle, topic);
    if (!topic || !match_sub_patterns(handle, topic))
        return -1;
    return sub_plain_topic(handle, topic);
}

int32_t kp_unsub_topic(kp_t *handle, const char *topic)
{
    const NoCancellation scope;
    if (!handle || !topic)
        return 0;
    if (is_pattern(topic)) {
        if (!is_subscribed(handle->sub_patterns, topic))
            return 0;
        kplist_remove_free(handle->sub_patterns, str_equal, topic, std::free);
        await_announced_tag(*handle);
        (void)kp_tags_destroy(handle);
        subscribe_again(handle, *handle->sub_patterns);
        subscribe_again(handle, *handle->sub_topics);
        return 0;
    }
    kplist_remove_free(handle->sub_topics, str_equal, topic, std::free);
    if (match_sub_patterns(handle, topic))
        return 0;
    if (kp_tag_t *tag = kp_get_tag(handle, topic))
        (void)kp_tag_destroy(handle, tag);
    return 0;
}

int32_t kp_pub_topic(kp_t *handle, const char *topic, const void *value, uint32_t value_size,
                     uint32_t value_type, uint64_t source_ts)
{
    if (!handle) {
        write_plain("null kp\n");
        return -1;
    }
    const uint32_t size = kp_get_value_size(value_type, value_size);
    if (size == 0) {
        write_plain("zero value size\n");
        return -1;
    }
    constexpr uint32_t kPublishedExtraInfo = 2;
    kp_tag_t *tag = kp_get_tag(handle, topic);
    if (!tag) {
        const uint32_t most = kp_get_value_size(value_type, KP_MAX_VALUE_SIZE);
        tag = kp_tag_provider_new(handle, topic, value_type, most, kPublishedExtraInfo);
    }
    // An existing tag may have a larger fixed size than the caller's value.
    std::array<uint8_t, kLargestFixedSize> padded{};
    if (value && size < padded.size()) {
        std::memcpy(padded.data(), value, size);
        value = padded.data();
    }
    const int32_t written =
        kp_tag_write_with_source_params(handle, tag, value, size, KP_QUALITY_GOOD, source_ts);
    return written == -1 ? -1 : 0;
}

int32_t kp_pub_topic_instant(kp_t *handle, const char *topic, const void *value,
                             uint32_t value_size, uint32_t value_type, uint64_t source_ts)
{
    const int32_t result = kp_pub_topic(handle, topic, value, value_size, value_type, source_ts);
    if (result == 0)
        (void)kp_tag_notify(handle);
    return result;
}

kp_topic_node_t *kp_list_all_topics(void)
{
    return kp_shm_list_all_topics();
}

void kp_free_list_all_topics(kp_topic_node_t *list)
{
    while (list) {
        kp_topic_node_t *next = list->next;
        std::free(list->topic);
        std::free(list);
        list = next;
    }
}
