// Subscriptions: what the public functions for topics stand on.
#pragma once

#include "kp.h"

namespace kp {

// Ensures that the handle has a tag for the topic. Returns 0, or -1.
int sub_plain_topic(kp_t *handle, const char *topic);

// Returns 1 if one of the handle's patterns covers the topic, else 0.
int match_sub_patterns(kp_t *handle, const char *topic);

// Subscribes to every topic of the store that the pattern covers. Returns 0, or -1 when the store
// cannot be listed.
int sub_matched_topic(kp_t *handle, const char *pattern);

// Does the same for the directory in `path`, a buffer of kPathSize bytes that is given back as it
// was. `depth` falls by one with each directory level; files count where it is 0 or less.
int sub_matched_topic_rec(kp_t *handle, char *path, int depth, const char *pattern);

// Returns 1 when two strings are equal. The subscription lists compare with it.
int str_equal(const void *key, const void *element);

} // namespace kp
