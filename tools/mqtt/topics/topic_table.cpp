#include "topics/topic_table.h"

#include "base/log.h"
#include "common/names/topic_name.h"
#include "common/text/text.h"
#include "names/topic_names.h"

#include <functional>

namespace kp::mqtt {

namespace {

// Says whether the value is still there although its providers have left. There must have been
// some: a topic that an instant write made looks the same, and its value is good. A topic that
// still gets instant writes is alive.
bool providers_have_left(const Sample &now, const Sample &before, bool had_left)
{
    if (now.providers > 0 || now.file != before.file)
        return false;
    return before.providers > 0 || (had_left && now.ts == before.ts);
}

} // namespace

std::string_view unit_of(const tool::Facts &facts)
{
    return facts.unit ? std::string_view(facts.unit->value) : std::string_view();
}

bool TopicTable::refresh(const tool::Buckets &buckets, Clock::time_point now)
{
    bool explained = true;
    for (size_t bucket = 0; bucket < buckets.size(); ++bucket) {
        if (!buckets[bucket])
            continue;
        bool changed = others_[bucket];
        for (OutTopic *topic : by_bucket_[bucket])
            changed |= refresh(*topic, now);
        explained = explained && changed;
    }
    return explained;
}

void TopicTable::scan(Clock::time_point now)
{
    ++scan_;
    others_.reset();
    (void)reader_.for_each_topic([this, now](const std::string &tag) { look_at(tag, now); });
    std::vector<OutTopic *> gone;
    for (const auto &[tag, topic] : by_tag_)
        if (topic->scan != scan_)
            gone.push_back(topic.get());
    for (OutTopic *topic : gone)
        remove(*topic, now);
}

void TopicTable::look_at(const std::string &tag, Clock::time_point now)
{
    OutTopic *topic = of_tag(tag);
    if (!topic && tool::split_levels(tag).size() > kMostLevels)
        return log_bounded(About::reading,
                           "a topic has more than " + std::to_string(kMostLevels) +
                               " levels and is not sent: " + tool::escaped(tag.substr(0, 100)));
    if (!topic)
        if (const OutRule *rule = configuration_.rule_for(tag))
            topic = add(tag, *rule);
    if (!topic) {
        others_.set(kp_hash(tag.c_str()));
        return;
    }
    topic->scan = scan_;
    (void)refresh(*topic, now);
}

// Null when another tag has the same MQTT topic, as `a` and `a/_` have until a scan finds that one
// of them is gone.
OutTopic *TopicTable::add(const std::string &tag, const OutRule &rule)
{
    std::string mqtt = rule.topic_of(tag);
    if (by_mqtt_.contains(mqtt))
        return nullptr;
    auto topic = std::make_unique<OutTopic>();
    topic->tag = tag;
    topic->mqtt = std::move(mqtt);
    topic->rule = &rule;
    topic->facts = facts_of(tag);
    topic->is_shared = is_shared(rule, topic->mqtt);
    by_mqtt_[topic->mqtt] = topic.get();
    by_bucket_[kp_hash(tag.c_str())].push_back(topic.get());
    return (by_tag_[tag] = std::move(topic)).get();
}

bool TopicTable::is_shared(const OutRule &rule, const std::string &mqtt) const
{
    return rule.retain && configuration_.shares(mqtt);
}

void TopicTable::reload(const Configuration &before, Clock::time_point now)
{
    const bool other_quality = before.quality_when_gone != configuration_.quality_when_gone;
    std::vector<OutTopic *> gone;
    for (const auto &[tag, topic] : by_tag_) {
        const OutRule *rule = configuration_.rule_for(tag);
        if (!rule || rule->topic_of(tag) != topic->mqtt) {
            gone.push_back(topic.get());
            continue;
        }
        const bool is_same = rule->sends_like(*topic->rule);
        topic->rule = rule;
        topic->is_shared = is_shared(*rule, topic->mqtt);
        if (is_same && !(other_quality && topic->providers_gone))
            continue;
        topic->must_send = true;
        pending_.mark_burst(topic->mqtt, now);
    }
    for (OutTopic *topic : gone)
        remove(*topic, now);
}

void TopicTable::use(std::shared_ptr<const tool::Dictionary> dictionary, Clock::time_point now)
{
    // The topics still point to the facts of the one before until they have found the new ones.
    const auto before = std::exchange(dictionary_, std::move(dictionary));
    for (const auto &[tag, topic] : by_tag_) {
        const tool::Facts facts = facts_of(tag);
        const bool is_same = unit_of(facts) == unit_of(topic->facts);
        topic->facts = facts;
        if (is_same)
            continue;
        topic->must_send = true;
        pending_.mark_burst(topic->mqtt, now);
    }
}

void TopicTable::remove(OutTopic &topic, Clock::time_point now)
{
    pending_.mark_change(topic.mqtt, now);
    if (state_.is_provided(topic.mqtt))
        state_.add(topic.mqtt, false); // one that is made anew may have no provider
    by_mqtt_.erase(topic.mqtt);
    std::erase(by_bucket_[kp_hash(topic.tag.c_str())], &topic);
    by_tag_.erase(std::string(topic.tag)); // a copy, since the entry holds the name
}

bool TopicTable::refresh(OutTopic &topic, Clock::time_point now)
{
    if (pending_.has_change(topic.mqtt))
        return true; // it is read when its turn comes
    Sample sample;
    const ReadOutcome outcome = reader_.read(topic.tag, sample);
    if (outcome == ReadOutcome::refused)
        log_bounded(About::reading, "the topic " + tool::escaped(topic.tag) +
                                        " cannot be read: no rights, or not a valid segment");
    if (outcome != ReadOutcome::read || !take_up(topic, std::move(sample)))
        return false;
    const bool was_sent = topic.gate.sent_at() || state_.has(topic.mqtt);
    // A provider that comes makes the value of a shared tag go, whoever had written it.
    if (topic.seen->has_value || was_sent || topic.is_shared)
        pending_.mark_change(topic.mqtt, now);
    return true;
}

bool TopicTable::take_up(OutTopic &topic, Sample sample)
{
    const size_t value_hash = std::hash<std::string>{}(sample.value);
    sample.value.clear();
    take_counts(topic, sample);
    const bool left_before = have_left_before(topic, sample);
    sample.consumers = 0;
    const Sample *before = topic.seen ? &*topic.seen : nullptr;
    if (before && (sample.ts != before->ts || sample.providers > before->providers))
        topic.providers_lost = false;
    const bool left =
        before ? providers_have_left(sample, *before, topic.providers_gone) : left_before;
    const bool gone = topic.providers_lost || left;
    const uint32_t providers = std::exchange(sample.providers, before ? before->providers : 0);
    const bool changed = !before || *before != sample || value_hash != topic.value_hash ||
                         gone != topic.providers_gone;
    sample.providers = providers;
    topic.seen = std::move(sample);
    topic.value_hash = value_hash;
    topic.providers_gone = gone;
    return changed;
}

// For the first look at a topic. Its last consumer would have removed it after its last provider,
// so what nobody holds was made by an instant write, whatever an earlier run has seen.
bool TopicTable::have_left_before(const OutTopic &topic, const Sample &sample) const
{
    return sample.providers == 0 && sample.consumers > 0 && state_.is_provided(topic.mqtt);
}

void TopicTable::take_counts(OutTopic &topic, const Sample &sample)
{
    const HandleCounts counted{sample.providers, sample.consumers};
    counts_changed_ = counts_changed_ || counted != topic.counted || !topic.seen;
    topic.counted = counted;
}

unsigned TopicTable::take_census(const HandleCensus &census, Clock::time_point now)
{
    unsigned handles = 0;
    for (const auto &[tag, topic] : by_tag_) {
        look_at_holders(*topic, census, now);
        handles += topic->roles.open_handles();
    }
    return handles;
}

// The topic is read once more, since only counts that stood still during the census can be compared
// with it.
void TopicTable::look_at_holders(OutTopic &topic, const HandleCensus &census, Clock::time_point now)
{
    if (!topic.seen ||
        !topic.roles.differs(topic.seen->file, topic.counted, census.of(topic.seen->file)))
        return;
    Sample sample;
    if (reader_.read(topic.tag, sample) != ReadOutcome::read)
        return;
    const HandleCounts counted{sample.providers, sample.consumers};
    if (counted != topic.counted || sample.file != topic.seen->file) {
        take_counts(topic, sample);
        counts_changed_ = true;
        return;
    }
    const bool were_lost = topic.roles.providers_are_lost(census.sight);
    const bool others_came = topic.roles.counted().providers < counted.providers;
    topic.roles.learn(sample.file, counted, census.of(sample.file));
    const bool are_lost = topic.roles.providers_are_lost(census.sight);
    if (are_lost && were_lost && !others_came)
        return; // what was written since came from somebody without a handle
    topic.providers_lost = are_lost;
    (void)refresh(topic, now);
}

void TopicTable::mark_again(const std::string &mqtt, Clock::time_point since)
{
    if (OutTopic *topic = of_mqtt(mqtt))
        topic->must_send = true;
    pending_.mark_change(mqtt, since);
}

OutTopic *TopicTable::of_tag(const std::string &tag) const
{
    const auto found = by_tag_.find(tag);
    return found == by_tag_.end() ? nullptr : found->second.get();
}

OutTopic *TopicTable::of_mqtt(const std::string &mqtt) const
{
    const auto found = by_mqtt_.find(mqtt);
    return found == by_mqtt_.end() ? nullptr : found->second;
}

} // namespace kp::mqtt
