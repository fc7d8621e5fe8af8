// The header is all that this file includes first, so it has to stand alone in strict C99.
#include <kp.h>

#include <stddef.h>
#include <stdio.h>

#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]

HOLDS(write_info_size, sizeof(kp_write_info) == 129);
HOLDS(write_info_bitmap, offsetof(kp_write_info, bitmap) == 1);
HOLDS(new_tag_info_size, sizeof(kp_new_tag_info) == 387);
HOLDS(new_tag_info_topic, offsetof(kp_new_tag_info, topic) == 1);
HOLDS(dict_entry_next, offsetof(kp_dict_entry, next) == sizeof(void *));
HOLDS(iter_entry, offsetof(kp_tag_iter_t, entry) == sizeof(void *));
HOLDS(topic_node_next, offsetof(kp_topic_node_t, next) == sizeof(void *));
HOLDS(list_mutex, offsetof(kplist, mutex) == 8);
HOLDS(list_node_next, offsetof(kplist_node, next) == 2 * sizeof(void *));
HOLDS(last_type, KP_TYPE_RAW == 13);
HOLDS(last_level, KP_LEVEL_OFF == 7);

int main(void)
{
    const uint32_t size = kp_get_value_size(KP_TYPE_INT32, 100);
    if (size != 4) {
        printf("the size of an int32 is %u\n", (unsigned)size);
        return 1;
    }
    return 0;
}
