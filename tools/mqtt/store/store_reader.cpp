#include "store/store_reader.h"

#include "common/segment_reader.h"
#include "common/store_walk.h"

#include <dirent.h>
#include <utility>

namespace kp::mqtt {

namespace {

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

ReadOutcome StoreReader::read(const std::string &topic, Sample &sample) const
{
    tool::TopicOpener opener;
    tool::Problem problem;
    auto snapshot = tool::read_topic(opener, topic, problem);
    if (!snapshot) {
        const bool is_missing =
            problem.code == tool::kNothing || tool::place_of(topic) == tool::Place::below_a_topic;
        return is_missing ? ReadOutcome::missing : ReadOutcome::refused;
    }
    const ReadOutcome outcome = outcome_of(*snapshot);
    if (outcome == ReadOutcome::read)
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
