// Listing the topics of the store: depth first, in the order of the directories, nothing sorted and
// nothing logged.
#include "kp.h"
#include "layout/segment.h"
#include "layout/unique_fd.h"
#include "store/store_path.h"
#include "support/cancellation.h"
#include "support/memory.h"
#include "support/path.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kp {

namespace {

static_assert(offsetof(kp_topic_node_t, topic) == 0);
static_assert(offsetof(kp_topic_node_t, next) == 8);

constexpr auto kMostSlashes = 2; // topics are listed to a depth of three levels

struct TopicList {
    kp_topic_node_t *head = nullptr;
    kp_topic_node_t *tail = nullptr;

    void append(kp_topic_node_t *first, kp_topic_node_t *last)
    {
        if (tail)
            tail->next = first;
        else
            head = first;
        if (last)
            tail = last;
    }
};

// A name that finds no memory is left out.
void append_topic(TopicList &topics, const char *name)
{
    auto node = make_zeroed<kp_topic_node_t>();
    if (!node)
        return;
    node->topic = copy_text(name).release();
    if (!node->topic)
        return;
    kp_topic_node_t *last = node.release();
    topics.append(last, last);
}

// The list is the caller's own, so that a directory's topics stand together.
TopicList list_topics(const char *prefix)
{
    TopicList topics;
    PathBuffer path;
    (void)format_text(path, "%s/%s", kStoreRoot, prefix);
    const UniqueDir dir(open_store_directory(path.data()));
    if (!dir)
        return topics;
    while (const dirent *entry = dir.next()) {
        PathBuffer name;
        (void)format_text(name, "%s%s%s", prefix, *prefix ? "/" : "", entry->d_name);
        const std::string_view text(name.data());
        if (std::count(text.begin(), text.end(), '/') > kMostSlashes)
            continue;
        if (entry->d_type == DT_DIR) {
            const TopicList below = list_topics(name.data());
            topics.append(below.head, below.tail);
        } else {
            append_topic(topics, name.data());
        }
    }
    return topics;
}

} // namespace

} // namespace kp

kp_topic_node_t *kp_shm_list_all_topics(void)
{
    const kp::NoCancellation scope;
    return kp::list_topics("").head;
}
