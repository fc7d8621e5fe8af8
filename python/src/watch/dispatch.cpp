#include "watch/dispatch.h"

#include "common/clock.h"
#include "common/store/store_files.h"
#include "common/store/store_walk.h"
#include "layout/notice.h"
#include "watch/watch.h"

#include <cstring>

namespace kp::python {

namespace {

// A notice of a topic that nobody announced has a bit without a tag. It is looked for in the store,
// but not more often than this.
constexpr uint64_t kSearchEveryUs = 200'000;
// A notice that was sent while this node still joined the mesh does not arrive, nor does one of a
// provider that sends none. What they wrote is found by looking at all tags now and then.
constexpr uint64_t kLookEveryUs = tool::kUsPerSecond;

struct Walk {
    std::vector<std::string> topics;
    bool has_unknown = false; // a bit of a bucket without any tag
};

bool is_set(const kp_write_info &notice, uint32_t bucket)
{
    return (notice.bitmap[bitmap_byte(bucket)] & bitmap_bit(bucket)) != 0;
}

// Gives the topics of tags that a notice speaks of and that were written since they were last read.
Walk walk(kp_t *handle, const kp_write_info &notice)
{
    Walk found;
    kp_tag_iter_t iter = {0, nullptr};
    for (;;) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, &notice, &iter);
        if (tag)
            found.topics.emplace_back(kp_tag_get_topic(tag));
        else if (iter.bucket >= KP_BUCKET_COUNT)
            break;
    }
    for (uint32_t bucket = 0; bucket < KP_BUCKET_COUNT && !found.has_unknown; ++bucket)
        found.has_unknown = is_set(notice, bucket) && !kp_lookup_head(handle, bucket);
    return found;
}

bool covers(const NodeState &state, const std::string &topic)
{
    for (const WatchList *watch : state.watches)
        if (watch->covers(topic))
            return true;
    return false;
}

void give(NodeState &state, const std::string &topic)
{
    for (WatchList *watch : state.watches)
        if (watch->covers(topic))
            watch->add(topic);
}

// Makes tags of the topics that appeared without being announced, and has them delivered.
void search_store(NodeState &state)
{
    std::vector<std::string> listed;
    {
        const Counted use(state.users);
        const WithoutInterpreter listing;
        listed = topics_of_store("#");
    }
    std::erase_if(listed, [&state](const std::string &topic) { return !covers(state, topic); });
    if (listed.empty() || !state.handle)
        return;
    const auto fresh = with_tags_locked(state, [&listed](kp_t *handle) {
        std::vector<std::string> made;
        for (const std::string &topic : listed)
            if (!kp_get_tag(handle, topic.c_str()) &&
                kp_sub_plain_topic(handle, topic.c_str()) == 0)
                made.push_back(topic);
        return made;
    });
    for (const std::string &topic : fresh)
        give(state, topic);
}

// Gives what is to be walked through now: the notice that waits, or all buckets when it is time for
// a look at all tags.
bool take_notice(NodeState &state, kp_write_info &notice, uint64_t now)
{
    const bool has_notice = kp_take_notice(state.handle, &notice) == 1;
    if (now < state.look_after_us)
        return has_notice;
    state.look_after_us = now + kLookEveryUs;
    std::memset(notice.bitmap, 0xff, sizeof(notice.bitmap));
    return true;
}

} // namespace

std::vector<std::string> topics_of_store(const std::string &pattern)
{
    tool::Selection selection;
    tool::Problem ignored;
    std::vector<std::string> topics;
    if (!selection.set({pattern}, {}, ignored))
        return topics;
    for (tool::StoreFile &file : tool::list_store(selection).files)
        topics.push_back(std::move(file.topic));
    return topics;
}

bool follow(NodeState &state, const std::string &pattern)
{
    const bool follows = with_tags_locked(
        state, [&pattern](kp_t *handle) { return kp_sub_topic(handle, pattern.c_str()) == 0; });
    return follows;
}

void dispatch(NodeState &state)
{
    const uint64_t now = tool::monotonic_us();
    kp_write_info notice;
    if (!state.handle || !take_notice(state, notice, now))
        return;
    Walk found;
    {
        const auto lock = locked(state.tags);
        if (!state.handle) // closed while this thread waited
            return;
        found = walk(state.handle, notice);
    }
    for (const std::string &topic : found.topics)
        give(state, topic);
    state.has_unknown = state.has_unknown || found.has_unknown;
    if (state.has_unknown && !state.watches.empty() && now >= state.search_after_us) {
        state.has_unknown = false;
        state.search_after_us = now + kSearchEveryUs;
        search_store(state);
    }
}

} // namespace kp::python
