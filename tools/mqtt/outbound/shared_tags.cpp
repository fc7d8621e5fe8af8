#include "outbound/shared_tags.h"

#include "names/topic_names.h"

#include <cstdlib>
#include <functional>

namespace kp::mqtt {

namespace {

uint64_t number_of(const UserProperties &properties, std::string_view name)
{
    return std::strtoull(property_of(properties, name).c_str(), nullptr, 10);
}

} // namespace

MessageKey key_of(const Message &message)
{
    std::string text = property_of(message.properties, property::kOrigin);
    const std::string number = property_of(message.properties, property::kNumber);
    text += '\n' + number;
    if (number.empty()) {
        text += message.payload;
        for (const auto &[name, value] : message.properties)
            text += '\n' + name + '=' + value;
    }
    const MessageKey key = std::hash<std::string>{}(text);
    return key ? key : 1;
}

SharedTags::SharedTags(const Configuration &configuration, const StoreReader &reader,
                       const LocalWriter *writer, StateFile &state, PendingNames &pending,
                       TopicTable &topics, uint64_t last_alive)
    : configuration_(configuration), reader_(reader), writer_(writer), state_(state),
      pending_(pending), topics_(topics), last_alive_(last_alive), tree_(configuration.device)
{
}

bool SharedTags::is_one_tree(const InRule &rule, const std::string &tag,
                             const std::string &topic) const
{
    if (!rule.shared || !rule.retained)
        return false;
    const OutRule *out = configuration_.rule_for(tag);
    return !out || (out->retain && out->topic_of(tag) == topic);
}

// Nobody has written it since.
bool SharedTags::is_left_over(const std::string &topic, const Sample &sample) const
{
    if (!state_.is_taken(topic))
        return false;
    const auto known = left_over_.find(topic);
    return sample.ts <= last_alive_ ||
           (known != left_over_.end() && known->second == mark_of(sample));
}

// A run that was killed may have written after its last sign of life. What has the source time of
// the broker's value is that value.
void SharedTags::recognise(const Message &message, const TagLook &look)
{
    const uint64_t source_ts = number_of(message.properties, property::kSourceTime);
    if (is_first_reading_ && !look.is_settling && look.outcome == ReadOutcome::read &&
        look.sample.has_value && source_ts && source_ts == look.sample.source_ts &&
        state_.is_taken(message.topic))
        left_over_[message.topic] = mark_of(look.sample);
}

TagLook SharedTags::look_at(const std::string &tag) const
{
    TagLook look;
    look.is_settling = is_settling(tag);
    look.outcome = reader_.read(tag, look.sample);
    // While the bridge itself writes the tag, the sample has no value but what is declared. That is
    // enough, since the value is about to be replaced.
    if (look.outcome == ReadOutcome::busy && look.is_settling)
        look.outcome = ReadOutcome::read;
    return look;
}

Standing SharedTags::standing(const std::string &topic, const std::string &tag,
                              const TagLook &look) const
{
    if (look.is_settling)
        return Standing::from_broker;
    if (look.outcome == ReadOutcome::busy)
        return Standing::unsent;
    const Sample &sample = look.sample;
    if (look.outcome != ReadOutcome::read || !sample.has_value)
        return Standing::absent;
    if (is_from_broker(tag, sample) || is_left_over(topic, sample))
        return Standing::from_broker;
    const OutTopic *live = topics_.of_tag(tag);
    if (!live)
        return configuration_.rule_for(tag) ? Standing::unsent : Standing::sent;
    const bool waits = live->must_send || live->is_deferred || live->settled != mark_of(sample);
    return waits ? Standing::unsent : Standing::sent;
}

Effect SharedTags::received(const Message &message, const std::string &tag, const TagLook &look,
                            Clock::time_point now)
{
    Arrival arrival;
    arrival.origin = sender_of(message);
    arrival.is_own = !arrival.origin.empty() && arrival.origin == configuration_.device;
    arrival.key =
        arrival.is_own ? number_of(message.properties, property::kNumber) : mqtt::key_of(message);
    arrival.is_clearing = message.payload.empty();
    if (!arrival.is_own && !arrival.is_clearing)
        recognise(message, look);
    const uint64_t source_ts = number_of(message.properties, property::kSourceTime);
    arrival.source_ts = source_ts ? source_ts : kp_get_timestamp_us();
    const bool is_busy = look.outcome == ReadOutcome::busy;
    const uint64_t ours = is_busy ? kp_get_timestamp_us() : look.sample.source_ts;
    return tree_.received(message.topic, arrival, standing(message.topic, tag, look), ours, now);
}

bool SharedTags::is_known(const OutTopic &topic, const Sample &sample) const
{
    const auto key = writer_ ? writer_->key_of(topic.tag, sample) : std::nullopt;
    return key ? tree_.is_last(topic.mqtt, *key) : is_left_over(topic.mqtt, sample);
}

bool SharedTags::is_removed(const std::string &topic) const
{
    if (!state_.is_taken(topic) || !tree_.is_there(topic))
        return false;
    const InRule *rule = configuration_.in_rule_for(topic);
    const Name name = rule ? to_tag_topic(rule->prefix, rule->tags, topic) : Name{};
    if (name.text.empty())
        return false;
    const TagLook look = look_at(reader_.standing_for(name.text));
    const bool is_absent = look.outcome == ReadOutcome::missing ||
                           look.outcome == ReadOutcome::undeclared ||
                           (look.outcome == ReadOutcome::read && !look.sample.has_value);
    return is_absent && !look.is_settling;
}

void SharedTags::sent(const Publication &publication, Clock::time_point now)
{
    if (publication.number)
        tree_.sent(publication.topic, publication.number, now);
}

void SharedTags::refused(const Publication &publication)
{
    if (publication.number)
        tree_.refused(publication.topic, publication.number);
}

void SharedTags::claim_unsent()
{
    for (const auto &[tag, topic] : topics_.all())
        if (topic->is_shared && state_.is_taken(topic->mqtt) &&
            (topic->must_send || topic->is_deferred || pending_.has(topic->mqtt)) &&
            standing(topic->mqtt, tag, look_at(tag)) == Standing::unsent)
            state_.add(topic->mqtt);
}

std::vector<std::string> SharedTags::stop_reading(bool is_complete, Clock::time_point now)
{
    is_first_reading_ = false;
    std::vector<std::string> lost;
    if (is_complete)
        lost = find_lost();
    mark_live(is_complete, now);
    mark_gone(is_complete, now);
    if (is_complete)
        tree_.forget_what_is_not_there();
    return lost;
}

// The topics that had their value from the broker, which no longer keeps one.
std::vector<std::string> SharedTags::find_lost()
{
    std::vector<std::string> lost;
    for (const std::string &topic : state_.taken())
        if (!tree_.is_there(topic))
            lost.push_back(topic);
    for (const std::string &topic : lost)
        state_.remove(topic);
    return lost;
}

void SharedTags::mark_live(bool is_complete, Clock::time_point now)
{
    for (const auto &[tag, topic] : topics_.all()) {
        if (!topic->is_shared)
            continue;
        const Standing stands = standing(topic->mqtt, tag, look_at(tag));
        const bool is_missing = is_complete && !tree_.is_there(topic->mqtt);
        if (stands == Standing::unsent || (stands == Standing::sent && is_missing)) {
            topic->must_send = true;
            pending_.mark_burst(topic->mqtt, now);
        }
    }
}

// What this bridge has brought to the broker, and is no longer there.
void SharedTags::mark_gone(bool is_complete, Clock::time_point now)
{
    std::vector<std::string> gone;
    for (const std::string &topic : state_.topics())
        if (!topics_.of_mqtt(topic) && configuration_.shares(topic))
            gone.push_back(topic);
    for (const std::string &topic : gone) {
        if (is_complete && !tree_.is_there(topic))
            state_.remove(topic);
        else
            pending_.mark_burst(topic, now);
    }
}

} // namespace kp::mqtt
