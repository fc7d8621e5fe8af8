#include "discovery/announcements.h"

#include <functional>

namespace kp::mqtt {

namespace {

// Never 0, which stands for nothing.
std::size_t hash_of(const std::string &text)
{
    return std::hash<std::string>{}(text) | 1;
}

} // namespace

void Announcements::value_goes(OutTopic &topic, uint32_t type, Clock::time_point now)
{
    if (configuration_.discovery.empty() || std::exchange(topic.announced_type, type) == type)
        return;
    const auto message = discovery_message(configuration_, topic, type);
    for (const std::string &mqtt : discovery_topics(configuration_, topic.tag))
        if (state_.has(mqtt) || (message && message->mqtt == mqtt))
            pending_.mark_burst(mqtt, now);
}

void Announcements::review(Clock::time_point now)
{
    for (const std::string &mqtt : state_.topics())
        if (!topics_.of_mqtt(mqtt) && !configuration_.shares(mqtt))
            mark_if_new(mqtt, now);
    if (configuration_.discovery.empty())
        return;
    for (const auto &[tag, topic] : topics_.all())
        if (topic->gate.sent_at())
            for (const std::string &mqtt : discovery_topics(configuration_, tag))
                mark_if_new(mqtt, now);
}

void Announcements::mark_if_new(const std::string &mqtt, Clock::time_point now)
{
    const auto [due, topic] = find(mqtt);
    const bool is_told = due.what == What::message && topic->announced_text == hash_of(due.text);
    const bool is_gone = due.what == What::ends && !state_.has(mqtt);
    if (due.what != What::stays && !is_told && !is_gone)
        pending_.mark_burst(mqtt, now);
}

Announcements::Due Announcements::take_due(const std::string &mqtt)
{
    auto [due, topic] = find(mqtt);
    if (due.what == What::message)
        topic->announced_text = hash_of(due.text);
    return std::move(due);
}

Announcements::Found Announcements::find(const std::string &mqtt) const
{
    const auto tag = tag_of_discovery(configuration_, mqtt);
    if (!tag)
        return {{What::ends, {}}};
    OutTopic *topic = topics_.of_tag(*tag);
    const bool is_there = topic && topic->seen && topic->seen->has_value;
    auto message =
        is_there ? discovery_message(configuration_, *topic, topic->seen->type) : std::nullopt;
    if (message && message->mqtt == mqtt)
        return {{What::message, std::move(message->text)}, topic};
    const bool is_known = topics_.facts_of(*tag).is_known;
    const bool may_be_known = is_known ? !is_there : !is_whole_;
    const bool stays = may_be_known && is_discoverable(configuration_, *tag);
    return {{stays ? What::stays : What::ends, {}}};
}

} // namespace kp::mqtt
