// The dictionary's record. Its chains are read without a lock while a tag is entered, so heads and
// links are published with release stores and read with acquire loads.
#pragma once

#include "kp.h"

struct kp_dict {
    kp_dict_entry *buckets[KP_BUCKET_COUNT];
};

extern "C" {

// Makes an unlinked entry for a tag; null, with a log line, when out of memory.
KP_API kp_dict_entry *kp_dict_new_entry(kp_tag_t *tag);
}

namespace kp {

// Gives the next entry of the same bucket, or null.
kp_dict_entry *next_entry(const kp_dict_entry &entry);

} // namespace kp
