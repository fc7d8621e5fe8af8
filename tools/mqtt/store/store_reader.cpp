#include "store/store_reader.h"

#include "common/store/store_walk.h"

#include <dirent.h>
#include <utility>

namespace kp::mqtt {

namespace {

// After so long a topic that was found in the middle of a write may have been left in peace.
constexpr std::chrono::milliseconds kAgain{100};

ReadOutcome outcome_of(const tool::Snapshot &snapshot)
{
    switch (snapshot.condition) {
    case tool::Condition::undeclared:
        return ReadOutcome::undeclared;
    case tool::Condition::busy:
        return ReadOutcome::busy;
    case tool::Condition::corrupt:
        return ReadOutcome::refused;
    case tool::Condition::empty:
    case tool::Condition::value:
        break;
    }
    return ReadOutcome::read;
}

Sample sample_of(tool::Snapshot snapshot)
{
    Sample sample;
    sample.type = snapshot.type;
    sample.max_size = snapshot.max;
    sample.extra_info = snapshot.extra;
    sample.quality = snapshot.quality;
    sample.providers = snapshot.providers;
    sample.consumers = snapshot.consumers;
    sample.file = snapshot.inode;
    sample.has_value = snapshot.has_value();
    sample.ts = snapshot.last_write_ts;
    sample.source_ts = snapshot.source_ts;
    sample.value = std::move(snapshot.bytes);
    return sample;
}

} // namespace

std::optional<tool::Snapshot> StoreReader::look_at(const std::string &topic,
                                                   tool::Problem &problem) const
{
    tool::TopicOpener opener;
    const auto known = unfinished_.find(topic);
    if (known != unfinished_.end()) {
        auto snapshot = tool::read_topic(opener, topic, problem, tool::Patience::none);
        const Unfinished &before = known->second;
        if (snapshot && snapshot->condition == tool::Condition::busy &&
            ((snapshot->inode == before.file && snapshot->last_write_ts == before.ts) ||
             Clock::now() < before.until))
            return snapshot;
    }
    auto snapshot = tool::read_topic(opener, topic, problem);
    if (snapshot && snapshot->condition == tool::Condition::busy)
        unfinished_[topic] = {snapshot->inode, snapshot->last_write_ts, Clock::now() + kAgain};
    else if (known != unfinished_.end())
        unfinished_.erase(known);
    return snapshot;
}

ReadOutcome StoreReader::read(const std::string &topic, Sample &sample) const
{
    tool::Problem problem;
    auto snapshot = look_at(topic, problem);
    if (!snapshot) {
        const bool is_missing =
            problem.kind == tool::kNothing || tool::place_of(topic) == tool::Place::below_a_topic;
        return is_missing ? ReadOutcome::missing : ReadOutcome::refused;
    }
    const ReadOutcome outcome = outcome_of(*snapshot);
    if (outcome == ReadOutcome::read || outcome == ReadOutcome::busy)
        sample = sample_of(std::move(*snapshot));
    return outcome;
}

bool StoreReader::for_each_topic(const std::function<void(const std::string &)> &visit) const
{
    const tool::StoreListing listing = tool::list_store({});
    for (const tool::StoreFile &file : listing.files)
        if (file.type == DT_REG)
            visit(file.topic);
    return listing.problems.empty();
}

std::string StoreReader::standing_for(std::string name) const
{
    while (tool::place_of(name) == tool::Place::directory)
        name += "/_";
    return name;
}

} // namespace kp::mqtt
