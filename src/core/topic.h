// Subscriptions: what the public functions for topics stand on.
#pragma once

#include "kp.h"

namespace kp {

// Ensures that the handle has a tag for the topic. Returns 0, or -1.
int sub_plain_topic(kp_t *handle, const char *topic);

// 1 if one of the handle's patterns covers the topic, else 0.
int match_sub_patterns(kp_t *handle, const char *topic);

// Subscribes to every topic of the store that the pattern covers. Returns 0, or -1 when the store
// cannot be listed.
int sub_matched_topic(kp_t *handle, const char *pattern);

// The same for the directory in `path`, a buffer of kPathSize bytes that is given back unchanged.
// Files are looked at from `depth` 0 downwards; each directory level counts one down.
int sub_matched_topic_rec(kp_t *handle, char *path, int depth, const char *pattern);

// 1 when two strings are equal; the comparison of the subscription lists.
int str_equal(const void *key, const void *element);

} // namespace kp
