// The two messages that travel between endpoints: fixed-size blocks whose first byte is their type,
// with no header and no terminator. A receiver knows the size from the type. Their layout is
// public.
#pragma once

#include "kp.h"

#include <cstddef>

namespace kp {

// Where each endpoint has its socket.
constexpr const char *kEndpointDirectory = "/run/providers/";

constexpr int32_t kWriteInfoSize = 129;
constexpr int32_t kNewTagInfoSize = 387;

static_assert(sizeof(kp_write_info) == kWriteInfoSize && alignof(kp_write_info) == 1);
static_assert(offsetof(kp_write_info, type) == 0 && offsetof(kp_write_info, bitmap) == 1);
static_assert(sizeof(kp_write_info::bitmap) * 8 == KP_BUCKET_COUNT);
static_assert(sizeof(kp_new_tag_info) == kNewTagInfoSize && alignof(kp_new_tag_info) == 1);
static_assert(offsetof(kp_new_tag_info, type) == 0 && offsetof(kp_new_tag_info, topic) == 1);
static_assert(sizeof(kp_new_tag_info::topic) == KP_NEW_TAG_TOPIC_SIZE);

// The byte, and the bit in it, that stand for a topic's hash in the bitmap of a change notice.
constexpr uint32_t bitmap_byte(uint32_t hash)
{
    return hash >> 3;
}

constexpr uint8_t bitmap_bit(uint32_t hash)
{
    return static_cast<uint8_t>(1U << (hash & 7));
}

} // namespace kp
