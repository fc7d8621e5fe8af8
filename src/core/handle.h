// The handle's record. docs/threads-and-locks.md tells which thread touches what.
#pragma once

#include "kp.h"
#include "layout/notice.h"
#include "support/fork.h"

#include <array>
#include <cstddef>

namespace kp {

// The bits of a change notice, in words that are changed as a whole.
using NoticeWords = std::array<uint64_t, KP_BUCKET_COUNT / 64>;

constexpr uint32_t kAnnounceNewTags = 1; // bit of kp_t::flags

} // namespace kp

struct kp_t {
    kp_notify_t *notify;
    kp_dict *dict;
    void *user_data;              // any thread writes, the receive thread reads
    kp_callback_t callback;       // null until kp_new() has finished
    kp_write_info write_info;     // marks of the writes since the last notice; the writing thread's
    pthread_mutex_t mutex;        // covers changes of `dict` and every call of `callback`
    kplist *sub_topics;           // plain topics, each a heap string
    kplist *sub_patterns;         // patterns, each a heap string
    kp_new_tag_info new_tag_info; // the outgoing announcement; the creating thread's
    uint32_t flags;
    // These follow the fields of the first version, whose places never change. The receive thread
    // adds bits, any thread takes them; waiting_notice.cpp says in which order.
    int32_t notice_fd;     // an eventfd; 0 until kp_get_fd() has made it, and never 0 again
    uint32_t notice_waits; // 1 once `notice_fd` was made readable for what waits
    kp::NoticeWords waiting_bits;
    pthread_mutex_t follow_mutex; // held while the receive thread takes up an announced topic
    kp::ForkLink fork_link;
};

static_assert(offsetof(kp_t, notify) == 0);
static_assert(offsetof(kp_t, dict) == 8);
static_assert(offsetof(kp_t, user_data) == 16);
static_assert(offsetof(kp_t, callback) == 24);
static_assert(offsetof(kp_t, write_info) == 32);
static_assert(offsetof(kp_t, mutex) == 168);
static_assert(offsetof(kp_t, sub_topics) == 168 + sizeof(pthread_mutex_t));
static_assert(offsetof(kp_t, sub_patterns) == 176 + sizeof(pthread_mutex_t));
static_assert(offsetof(kp_t, new_tag_info) == 184 + sizeof(pthread_mutex_t));
static_assert(offsetof(kp_t, flags) == 572 + sizeof(pthread_mutex_t));
static_assert(sizeof(kp::NoticeWords) == sizeof(kp_write_info::bitmap));

static_assert(offsetof(kp_tag_iter_t, bucket) == 0);
static_assert(offsetof(kp_tag_iter_t, entry) == 8);

extern "C" {

// The receiver that kp_new() gives to its endpoint; runs on the receive thread.
KP_API void kp_notify_callback(const uint8_t *notice, int32_t length, void *handle);
}
