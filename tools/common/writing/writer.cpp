#include "common/writing/writer.h"

#include "common/clock.h"
#include "common/device/free_space.h"
#include "common/store/segment_writer.h"
#include "common/text/text.h"
#include "layout/value_type.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

namespace kp::tool {

namespace {

constexpr uint32_t kPublishedExtra = 2; // what topics published by name carry

// Says what stands at the place of the topic's directories or its file without being one.
std::optional<Problem> obstacle(const std::string &topic)
{
    std::string path = kStoreRoot;
    const auto levels = split_levels(topic);
    for (std::size_t index = 0; index < levels.size(); ++index) {
        struct stat status;
        path.append("/").append(levels[index]);
        if (lstat(path.c_str(), &status) != 0)
            return std::nullopt;
        const bool is_last = index + 1 == levels.size();
        if (is_last && S_ISDIR(status.st_mode))
            return Problem{kInvalid, escaped(topic) + ": other topics lie below it"};
        if (!is_last && S_ISLNK(status.st_mode))
            return Problem{kInvalid, escaped(path) + ": a symbolic link, which is not followed"};
        if (!is_last && !S_ISDIR(status.st_mode))
            return Problem{kInvalid, escaped(path) + ": a topic itself, so none can lie below it"};
    }
    return std::nullopt;
}

// The maximum that a value must keep: a topic that an instant write made has no maximum of its own.
uint32_t largest_size(const Target &target)
{
    constexpr uint32_t most = KP_MAX_VALUE_SIZE;
    return target.max == 0 ? most : std::min(target.max, most);
}

std::optional<Target> declared_target(const Write &write, const Snapshot &snapshot,
                                      Problem &problem)
{
    Target target{snapshot.type, snapshot.max, write.extra.value_or(snapshot.extra), false,
                  snapshot};
    if (snapshot.condition == Condition::corrupt && !write.change_type) {
        problem = value_problem(write.topic, snapshot);
        return std::nullopt;
    }
    const bool is_other_max =
        write.max && *write.max != snapshot.max && has_variable_size(target.type);
    if (!write.type || (*write.type == snapshot.type && !(write.change_type && is_other_max)))
        return target;
    if (!write.change_type) {
        problem = {kUsage, escaped(write.topic) + ": its type is " + kp_type2str(snapshot.type) +
                               ", not " + kp_type2str(*write.type) + write.remedies.other_type};
        return std::nullopt;
    }
    target.is_new = true;
    return target;
}

} // namespace

std::optional<Target> find_target(const Write &write, Problem &problem)
{
    if (auto found = obstacle(write.topic)) {
        problem = std::move(*found);
        return std::nullopt;
    }
    TopicOpener opener;
    const auto snapshot = read_topic(opener, write.topic, problem);
    if (!snapshot && problem.kind != kNothing)
        return std::nullopt;
    std::optional<Target> target;
    if (snapshot && snapshot->condition != Condition::undeclared) {
        target = declared_target(write, *snapshot, problem);
        if (!target || !target->is_new)
            return target;
    } else if (!write.type && !write.meant_type) {
        problem = {kUsage, escaped(write.topic) + ": a new topic; " + write.remedies.new_topic};
        return std::nullopt;
    }
    Target fresh;
    fresh.type = write.type ? *write.type : *write.meant_type;
    // A topic that an instant write made has no maximum, and gets none when it is written back.
    const uint32_t max = write.max ? *write.max : write.meant_max.value_or(KP_MAX_VALUE_SIZE);
    fresh.max = max == 0 ? 0 : kp_get_value_size(fresh.type, max);
    fresh.extra = write.extra.value_or(snapshot && target ? snapshot->extra : kPublishedExtra);
    fresh.is_new = true;
    if (snapshot)
        fresh.before = *snapshot;
    return fresh;
}

bool store_value(const Write &write, const Target &target, const std::optional<std::string> &bytes,
                 Problem &problem)
{
    if (bytes && has_variable_size(target.type) && bytes->size() > largest_size(target)) {
        problem = {kUsage, escaped(write.topic) + ": " + std::to_string(bytes->size()) +
                               " bytes are more than the topic's maximum, " +
                               std::to_string(largest_size(target))};
        return false;
    }
    std::optional<Declaration> declaration;
    if (target.is_new)
        declaration = {target.type, target.max, target.extra};
    std::optional<StoredValue> value;
    const uint64_t timestamp = write.timestamp.value_or(now_us());
    if (bytes)
        value = {*bytes,
                 target.type,
                 target.extra,
                 timestamp,
                 write.source_ts.value_or(timestamp),
                 write.quality.value_or(KP_QUALITY_GOOD)};
    TopicOpener opener;
    if ((!declaration && !value) || store_segment(opener, write.topic, declaration, value, problem))
        return true;
    const std::string what = errno == ENOSPC ? shortage() : "";
    if (!what.empty())
        problem = {kLimit, escaped(write.topic) + ": " + what};
    return false;
}

} // namespace kp::tool
