// Handles: making and destroying them, finding tags, and what incoming notices set off.
#include "core/handle.h"

#include "core/dict.h"
#include "core/tag.h"
#include "core/waiting_notice.h"
#include "support/cancellation.h"
#include "support/fork.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/memory.h"
#include "support/path.h"

#include <bit>
#include <cerrno>
#include <cstring>

namespace kp {

namespace {

void set_level_from_environment()
{
    if (const char *name = std::getenv("KP_XLOG_USER_LEVEL"))
        kp_xlog_set_user_level(kp_xlog_get_level_by_str(name));
}

// Gives a notice to the application: through the descriptor if there is one, else to the callback.
void take_up_notice(kp_t &handle, const uint8_t *notice)
{
    if (has_notice_fd(handle)) {
        merge_notice(handle, notice);
        return;
    }
    if (!load_acquire(handle.callback))
        return;
    const PlainLock lock(handle.mutex); // the receive thread cannot be cancelled
    if (has_notice_fd(handle)) {        // kp_get_fd() had the lock meanwhile
        merge_notice(handle, notice);
        return;
    }
    (void)load_acquire(handle.callback)(&handle, reinterpret_cast<const kp_write_info *>(notice),
                                        load_acquire(handle.user_data));
}

void follow_new_tag(kp_t &handle, const uint8_t *notice)
{
    // A peer's text need not be terminated.
    std::array<char, KP_NEW_TAG_TOPIC_SIZE + 1> topic{};
    std::memcpy(topic.data(), notice + offsetof(kp_new_tag_info, topic), KP_NEW_TAG_TOPIC_SIZE);
    const PlainLock lock(handle.follow_mutex); // the receive thread cannot be cancelled
    (void)kp_sub_plain_topic(&handle, topic.data());
}

// Finds the first flagged bucket, from this one on; KP_BUCKET_COUNT when there is none. Looks at 64
// buckets at a time: a notice has 1024 buckets and seldom more than a few flags.
uint32_t find_flagged(const kp_write_info &notice, uint32_t bucket)
{
    constexpr uint32_t kBitsPerWord = 64;
    uint64_t wanted = ~uint64_t{0} << (bucket % kBitsPerWord);
    for (uint32_t first = bucket - bucket % kBitsPerWord; first < KP_BUCKET_COUNT;
         first += kBitsPerWord) {
        uint64_t word;
        std::memcpy(&word, &notice.bitmap[bitmap_byte(first)], sizeof(word));
        if ((word & wanted) != 0)
            return first + static_cast<uint32_t>(std::countr_zero(word & wanted));
        wanted = ~uint64_t{0};
    }
    return KP_BUCKET_COUNT;
}

// Makes a handle that has come into a child of fork() fit to be destroyed there: its locks may be
// held by threads that are not there, its descriptor is the parent's.
void leave_to_parent(void *record)
{
    auto &handle = *static_cast<kp_t *>(record);
    handle.mutex = PTHREAD_MUTEX_INITIALIZER;
    handle.follow_mutex = PTHREAD_MUTEX_INITIALIZER;
    handle.sub_topics->mutex = PTHREAD_MUTEX_INITIALIZER;
    handle.sub_patterns->mutex = PTHREAD_MUTEX_INITIALIZER;
    handle.notice_fd = 0;
}

// Makes all parts of the handle except its endpoint and its callback. So the lists are there before
// a notice can arrive.
bool fill(kp_t &handle)
{
    if (pthread_mutex_init(&handle.mutex, nullptr) != 0 ||
        pthread_mutex_init(&handle.follow_mutex, nullptr) != 0)
        return false;
    handle.dict = kp_dict_new();
    handle.sub_topics = kplist_new();
    handle.sub_patterns = kplist_new();
    handle.write_info.type = KP_MSG_WRITE_INFO;
    handle.new_tag_info.type = KP_MSG_NEW_TAG;
    return handle.dict && handle.sub_topics && handle.sub_patterns;
}

// Finds the next tag that needs a read, from the cursor on, which is a place in one bucket. Moves
// the cursor behind that tag. Gives null at the end of the bucket.
kp_tag_t *next_need_read_tag(kp_dict_entry *&cursor)
{
    while (cursor) {
        kp_tag_t *tag = cursor->tag;
        cursor = next_entry(*cursor);
        if (tag && kp_tag_need_read(tag))
            return tag;
    }
    return nullptr;
}

} // namespace

} // namespace kp

using namespace kp;

// Making a handle and destroying it are calls of the system above all: compiled for size.
[[gnu::cold]] kp_t *kp_new(const char *name, kp_callback_t callback)
{
    const NoCancellation scope;
    auto made = make_zeroed<kp_t>();
    if (!made) {
        KP_ERROR("kp init: malloc kp_t: %s\n", std::strerror(errno));
        return nullptr;
    }
    set_level_from_environment();
    kp_t *handle = made.release(); // from here on kp_destroy() cleans up
    if (fill(*handle)) {
        enter_fork_link(handle->fork_link, leave_to_parent, handle);
        handle->notify = kp_notify_init(name, kWriteInfoSize, kp_notify_callback, handle);
    }
    if (!handle->notify) {
        const KeepErrno keep;
        (void)kp_destroy(handle);
        return nullptr;
    }
    store_release(handle->callback, callback);
    return handle;
}

[[gnu::cold]] int32_t kp_destroy(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    const NoCancellation scope;
    // The endpoint goes first: its receive thread may be in the middle of a walk of the dictionary.
    (void)kp_notify_close(&handle->notify);
    if (handle->notice_fd != 0)
        const OwnFd notice_fd(handle->notice_fd);
    leave_fork_link(handle->fork_link);
    (void)kp_dict_destroy(handle->dict);
    (void)pthread_mutex_destroy(&handle->mutex);
    (void)pthread_mutex_destroy(&handle->follow_mutex);
    kplist_free(handle->sub_topics, std::free);
    kplist_free(handle->sub_patterns, std::free);
    std::free(handle);
    return 0;
}

[[gnu::cold]] int32_t kp_close(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    const NoCancellation scope;
    (void)kp_notify_close(&handle->notify); // so that no announcement makes a tag any more
    handle->notify = nullptr;
    (void)kp_tags_destroy(handle);
    return kp_destroy(handle);
}

int32_t kp_set_user_data(kp_t *handle, void *data)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    store_release(handle->user_data, data);
    return 0;
}

void *kp_get_user_data(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return nullptr;
    return load_acquire(handle->user_data);
}

kp_dict_entry *kp_lookup_head(kp_t *handle, uint32_t bucket)
{
    if (is_null(handle, "kp is null\n"))
        return nullptr;
    return kp_dict_lookup_entry_head(handle->dict, bucket);
}

kp_tag_t *kp_get_tag(kp_t *handle, const char *topic)
{
    kp_dict_entry *entry = kp_lookup_head(handle, kp_hash(topic));
    for (; topic && entry; entry = next_entry(*entry))
        if (entry->tag && std::strcmp(kp_tag_get_topic(entry->tag), topic) == 0)
            return entry->tag;
    return nullptr;
}

kp_tag_t *kp_get_next_updated_tag(kp_t *handle, const kp_write_info *notice, kp_tag_iter_t *iter)
{
    if (!notice || !iter || notice->type != KP_MSG_WRITE_INFO)
        return nullptr;
    // Deliberate: the end of a bucket's chain is reported, not passed over; the next call goes on
    // with the next bucket.
    if (iter->entry)
        return next_need_read_tag(iter->entry);
    if (iter->bucket < 0)
        iter->bucket = 0;
    while (iter->bucket < KP_BUCKET_COUNT) {
        const uint32_t bucket = find_flagged(*notice, static_cast<uint32_t>(iter->bucket));
        if (bucket == KP_BUCKET_COUNT) {
            iter->bucket = KP_BUCKET_COUNT;
            return nullptr;
        }
        iter->bucket = static_cast<int32_t>(bucket + 1);
        iter->entry = kp_lookup_head(handle, bucket);
        if (kp_tag_t *tag = next_need_read_tag(iter->entry))
            return tag;
    }
    return nullptr;
}

int32_t kp_set_new_tag_notify(kp_t *handle, uint8_t enable)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    const uint32_t flags = load_relaxed(handle->flags);
    store_relaxed(handle->flags, enable ? flags | kAnnounceNewTags : flags & ~kAnnounceNewTags);
    return 0;
}

int32_t kp_is_new_tag_notify_enabled(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return 0;
    return load_relaxed(handle->flags) & kAnnounceNewTags ? 1 : 0;
}

void kp_dump_dict(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return;
    kp_dict_dump_dict(handle->dict);
}

void kp_notify_callback(const uint8_t *notice, int32_t length, void *handle)
{
    if (is_null(notice, "notification is null\n"))
        return;
    if (is_null(handle, "obj is null\n"))
        return;
    auto &receiver = *static_cast<kp_t *>(handle);
    if (notice[0] == KP_MSG_WRITE_INFO && length == kWriteInfoSize)
        take_up_notice(receiver, notice);
    else if (notice[0] == KP_MSG_NEW_TAG && length == kNewTagInfoSize)
        follow_new_tag(receiver, notice);
}
