// Tags by the hash of their topic. The same hash numbers the bits of the change notice, so it has
// to be the same in every process.
#include "core/dict.h"

#include "support/list.h"
#include "support/log.h"
#include "support/memory.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace kp {

namespace {

static_assert(offsetof(kp_dict_entry, tag) == 0);
static_assert(offsetof(kp_dict_entry, next) == 8);
static_assert(sizeof(kp_dict) == KP_BUCKET_COUNT * sizeof(void *));

bool is_bucket(uint32_t hash)
{
    return hash < KP_BUCKET_COUNT;
}

// Unlinks and frees an entry of the bucket whose head is given.
void remove_entry(kp_dict_entry *&head, kp_dict_entry *entry)
{
    kp_dict_entry **link = &head;
    while (*link && *link != entry)
        link = &(*link)->next;
    if (*link) {
        store_release(*link, entry->next);
        std::free(entry);
    }
}

template <typename Visit> void for_each_entry(kp_dict &dict, Visit visit)
{
    for (uint32_t hash = 0; hash < KP_BUCKET_COUNT; ++hash)
        for (kp_dict_entry *entry = kp_dict_lookup_entry_head(&dict, hash); entry;
             entry = next_entry(*entry))
            visit(*entry);
}

} // namespace

kp_dict_entry *next_entry(const kp_dict_entry &entry)
{
    return load_acquire(entry.next);
}

} // namespace kp

using namespace kp;

uint32_t kp_hash(const char *topic)
{
    uint32_t hash = 0;
    for (const char *byte = topic; byte && *byte; ++byte)
        hash = hash * 31 + static_cast<uint8_t>(*byte);
    return hash & (KP_BUCKET_COUNT - 1);
}

kp_dict *kp_dict_new(void)
{
    return make_zeroed<kp_dict>().release();
}

int32_t kp_dict_destroy(kp_dict *dict)
{
    if (!dict)
        return -1;
    for (kp_dict_entry *&head : dict->buckets)
        while (head)
            remove_entry(head, head);
    std::free(dict);
    return 0;
}

kp_dict_entry *kp_dict_new_entry(kp_tag_t *tag)
{
    auto entry = make_zeroed<kp_dict_entry>();
    if (!entry) {
        KP_ERROR("malloc: %s\n", std::strerror(errno));
        return nullptr;
    }
    entry->tag = tag;
    return entry.release();
}

int32_t kp_dict_add_tag(kp_dict *dict, kp_tag_t *tag, uint32_t hash)
{
    if (!dict || !tag || !is_bucket(hash))
        return -1;
    kp_dict_entry *entry = kp_dict_new_entry(tag);
    if (!entry)
        return -1;
    entry->next = dict->buckets[hash];
    store_release(dict->buckets[hash], entry);
    return 0;
}

kp_dict_entry *kp_dict_lookup_entry_head(kp_dict *dict, uint32_t hash)
{
    if (!dict || !is_bucket(hash))
        return nullptr;
    return load_acquire(dict->buckets[hash]);
}

kp_dict_entry *kp_dict_lookup_entry(kp_dict *dict, uint32_t hash, kp_tag_t *tag)
{
    if (!tag)
        return nullptr;
    kp_dict_entry *entry = kp_dict_lookup_entry_head(dict, hash);
    while (entry && entry->tag != tag)
        entry = next_entry(*entry);
    return entry;
}

int32_t kp_dict_remove_tag(kp_dict *dict, kp_tag_t *tag, uint32_t hash)
{
    kp_dict_entry *entry = kp_dict_lookup_entry(dict, hash, tag);
    if (!entry) // Without a dictionary, a tag or such a bucket there is none either.
        return -1;
    remove_entry(dict->buckets[hash], entry);
    return 0;
}

void kp_dict_dump_dict(kp_dict *dict)
{
    if (!dict)
        return;
    write_plain("=== dump dict ===\n");
    for_each_entry(*dict, [](const kp_dict_entry &entry) {
        (void)std::fprintf(stderr, "topic=%s\n", kp_tag_get_topic(entry.tag));
    });
    write_plain("==================\n");
}

void kp_dict_list_dict(kp_dict *dict, kplist *list)
{
    if (!dict || !list)
        return;
    for_each_entry(*dict, [list](const kp_dict_entry &entry) {
        auto topic = copy_text(kp_tag_get_topic(entry.tag));
        if (topic && insert_at_head(*list, topic.get()))
            (void)topic.release(); // the list's now
    });
}
