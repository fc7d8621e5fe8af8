// The tag's record, and the constructor that provider and consumer tags share.
#pragma once

#include "kp.h"

#include <cstddef>

struct kp_tag_t {
    char *topic;   // the tag's own copy
    kp_shm_t *shm; // null only while the tag is being made
    uint32_t hash; // of the topic: bucket and bit of the change notice
    uint32_t role;
    void *user_data;
};

static_assert(offsetof(kp_tag_t, topic) == 0);
static_assert(offsetof(kp_tag_t, shm) == 8);
static_assert(offsetof(kp_tag_t, hash) == 16);
static_assert(offsetof(kp_tag_t, role) == 20);
static_assert(offsetof(kp_tag_t, user_data) == 24);

extern "C" {

// Makes a tag and opens its segment; the tag is not in the dictionary yet. Null on failure.
KP_API kp_tag_t *kp_tag_new(kp_t *handle, const char *topic, uint32_t role);
}

namespace kp {

// Makes a consumer tag that counts every write after `seen_ts` as not yet read. The mark is set
// before the tag enters the dictionary, where another thread can destroy it. Null on failure.
kp_tag_t *make_consumer_tag(kp_t &handle, const char *topic, uint64_t seen_ts);

} // namespace kp
