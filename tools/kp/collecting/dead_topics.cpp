#include "collecting/dead_topics.h"

#include "common/clock.h"
#include "common/store/fault_guard.h"
#include "common/system/file_lock.h"
#include "common/text/text.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tuple>

namespace kp::tool {

namespace {

bool are_same(const std::vector<Mapper> &a, const std::vector<Mapper> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Mapper &x, const Mapper &y) {
        return std::tie(x.pid, x.writable, x.read_only) == std::tie(y.pid, y.writable, y.read_only);
    });
}

std::vector<Mapper> mappers_of(const Mappers &all, const FileId &file)
{
    const auto mappers = all.of(file);
    return {mappers.begin(), mappers.end()};
}

// Notes the counts before the processes are looked at: a handle that is opened in between then
// shows as a change.
std::optional<DeadTopic> suspect(TopicOpener &opener, const std::string &topic,
                                 const TopicSearch &search, Problem &problem)
{
    struct stat status;
    if (!opener.status(topic, status, problem) || !is_segment_file(status, topic, problem))
        return std::nullopt;
    const auto snapshot = read_topic(opener, topic, problem);
    if (!snapshot)
        return std::nullopt;
    DeadTopic dead;
    dead.topic = topic;
    dead.file = file_id(status);
    dead.counted = {snapshot->providers, snapshot->consumers};
    dead.last_write_ts = snapshot->last_write_ts;
    dead.changed_us = to_us(status.st_mtim);
    const bool is_young =
        std::max(dead.last_write_ts, dead.changed_us) > search.orphans_written_before;
    if (dead.is_orphan() && (!search.orphans || is_young))
        return std::nullopt;
    return dead;
}

// If handles of both roles are counted, nothing tells whose handles are gone.
ReferenceCounts right_counts(const DeadTopic &dead)
{
    ReferenceCounts right{};
    if (dead.open > 0)
        (dead.counted.providers > 0 ? right.providers : right.consumers) =
            static_cast<uint8_t>(dead.open);
    return right;
}

bool is_dead(const DeadTopic &suspected)
{
    return suspected.is_orphan() ? suspected.mappers.empty()
                                 : suspected.open < suspected.counted.sum();
}

// A topic whose lock is held from the second proof until it is removed or corrected.
struct Held {
    const DeadTopic *dead = nullptr;
    LockedFile file = {};
    DeedResult result = {};
};

Held open_again(TopicOpener &opener, const DeadTopic &dead)
{
    Problem problem;
    UniqueFd fd = opener.open(dead.topic, problem, dead.is_orphan() ? O_RDONLY : O_RDWR);
    struct stat status;
    if (!fd && problem.kind != kNothing)
        return {&dead, {}, {Deed::failed, problem}};
    if (!fd || dead.is_ambiguous() || fstat(fd.get(), &status) != 0 || file_id(status) != dead.file)
        return {&dead};
    return {&dead, {std::move(fd)}};
}

bool still_counts(const Held &held)
{
    ReferenceCounts counts{};
    uint64_t last_write_ts = 0;
    struct stat status;
    return fstat(held.file.fd.get(), &status) == 0 &&
           pread(held.file.fd.get(), &counts, sizeof(counts), offsetof(Segment, refs)) ==
               sizeof(counts) &&
           pread(held.file.fd.get(), &last_write_ts, sizeof(last_write_ts),
                 offsetof(Segment, last_write_ts)) == sizeof(last_write_ts) &&
           counts.providers == held.dead->counted.providers &&
           counts.consumers == held.dead->counted.consumers &&
           (!held.dead->is_orphan() || (last_write_ts == held.dead->last_write_ts &&
                                        to_us(status.st_mtim) == held.dead->changed_us));
}

// Changes the counts unless they have changed since the look.
DeedResult replace_counts(const Held &held)
{
    void *memory =
        mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, held.file.fd.get(), 0);
    if (memory == MAP_FAILED)
        return {Deed::failed, system_problem(escaped(held.dead->topic), errno)};
    ReferenceCounts &counts = static_cast<Segment *>(memory)->refs;
    bool is_replaced = false;
    (void)guarded([&] { is_replaced = replace_if(counts, held.dead->counted, held.dead->right); });
    (void)munmap(memory, kSegmentSize);
    return {is_replaced ? Deed::done : Deed::changed, {}};
}

DeedResult act_on(TopicOpener &opener, const Held &held)
{
    const DeadTopic &dead = *held.dead;
    if (!dead.is_orphan()) {
        DeedResult replaced = replace_counts(held);
        if (replaced.deed != Deed::done || !dead.is_removed())
            return replaced;
    }
    Problem problem;
    struct stat status;
    if (fstat(held.file.fd.get(), &status) != 0 || status.st_size != kSegmentSize)
        return {};
    if (opener.remove_same(dead.topic, dead.file, problem))
        return {Deed::done, {}};
    return problem.kind == kPermission ? DeedResult{Deed::failed, problem} : DeedResult{};
}

void bury_some(const DeadTopic *first, std::size_t count, std::vector<DeedResult> &deeds)
{
    TopicOpener opener;
    std::vector<Held> all;
    all.reserve(count);
    for (std::size_t index = 0; index < count; ++index)
        all.push_back(open_again(opener, first[index]));
    lock_all(all, &Held::file);
    const Mappers mappers = find_mappers(first->file.device);
    opener.start_round();
    for (Held &held : all) {
        if (held.file.fd && !held.file.lock.is_held())
            held.result = {Deed::failed, locked_problem(held.dead->topic)};
        else if (held.file.fd && still_counts(held) &&
                 are_same(mappers_of(mappers, held.dead->file), held.dead->mappers))
            held.result = act_on(opener, held);
        held.file.lock.give_back();
        deeds.push_back(std::move(held.result));
    }
}

} // namespace

DeadTopics find_dead_topics(const StoreListing &listing, const TopicSearch &search)
{
    DeadTopics found;
    TopicOpener opener;
    for (const StoreFile &file : listing.files) {
        Problem problem;
        if (auto dead = suspect(opener, file.topic, search, problem))
            found.topics.push_back(std::move(*dead));
        else if (problem.kind != kDone && problem.kind != kNothing)
            found.problems.push_back(std::move(problem));
    }
    if (found.topics.empty())
        return found;
    const Mappers mappers = find_mappers(found.topics.front().file.device);
    for (DeadTopic &dead : found.topics) {
        dead.mappers = mappers_of(mappers, dead.file);
        dead.open = mappers.open_handles(dead.file);
        dead.right = right_counts(dead);
    }
    std::erase_if(found.topics, [](const DeadTopic &dead) { return !is_dead(dead); });
    found.sees_everybody = found.topics.empty() || search.trust_visible ||
                           (mappers.unreadable.empty() && sees_all_processes());
    if (!found.sees_everybody)
        found.topics.clear();
    return found;
}

std::vector<DeedResult> bury_topics(const std::vector<DeadTopic> &topics)
{
    std::vector<DeedResult> deeds;
    for (std::size_t first = 0; first < topics.size(); first += kMostLockedFiles)
        bury_some(&topics[first], std::min(kMostLockedFiles, topics.size() - first), deeds);
    return deeds;
}

} // namespace kp::tool
