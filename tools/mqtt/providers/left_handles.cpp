#include "providers/left_handles.h"

#include "base/log.h"
#include "common/store/segment_reader.h"
#include "kp.h"
#include "providers/segment_holders.h"

#include <map>
#include <optional>
#include <vector>

namespace kp::mqtt {

namespace {

constexpr uint32_t kUncounted = 3; // opens and closes a segment without changing its counts

// A segment as it stood at one moment.
struct Counted {
    ino_t file = 0;
    unsigned providers = 0;
    unsigned handles = 0; // of both roles

    bool operator==(const Counted &) const = default;
};

// Nothing where there is no such segment.
std::optional<Counted> look_at(const std::string &tag)
{
    tool::TopicOpener opener;
    tool::Problem problem;
    const auto snapshot = tool::read_topic(opener, tag, problem);
    if (!snapshot)
        return {};
    const unsigned handles = unsigned{snapshot->providers} + snapshot->consumers;
    return Counted{snapshot->inode, snapshot->providers, handles};
}

unsigned open_handles(const HandleCensus &census, ino_t file)
{
    unsigned handles = 0;
    for (const Holder &holder : census.of(file))
        handles += holder.handles;
    return handles;
}

// False when the segment is another one by now, or somebody opens or closes it just then. One that
// went meanwhile would be made anew here and goes again.
bool give_back(const std::string &tag, const Counted &counted)
{
    kp_shm_t *segment = kp_shm_new(tag.c_str(), kUncounted);
    const bool is_same = look_at(tag) == counted;
    (void)kp_shm_destroy(segment, tag.c_str(), is_same ? uint32_t{KP_ROLE_PROVIDER} : kUncounted);
    return is_same;
}

} // namespace

void give_back_left_handles(HandleRecord &record, bool trust_visible)
{
    std::map<std::string, Counted> counted;
    for (const std::string &tag : std::set(record.left())) {
        const auto found = look_at(tag);
        if (found && found->providers > 0)
            counted[tag] = *found;
        else
            record.give_up(tag);
    }
    if (counted.empty())
        return;
    const HandleCensus census = SegmentHolders(trust_visible).take();
    if (census.sight == Sight::partial)
        return;
    size_t given_back = 0;
    for (const auto &[tag, before] : counted) {
        const bool is_ours = open_handles(census, before.file) < before.handles;
        if (is_ours && !give_back(tag, before))
            continue;
        record.give_up(tag);
        given_back += is_ours;
    }
    log(Level::info,
        "an earlier run was killed; " + std::to_string(given_back) + " of its tags are closed now");
}

} // namespace kp::mqtt
