#include "outbound/make_publication.h"

#include "messages/payload.h"

#include <string_view>
#include <utility>

namespace kp::mqtt {

Publication make_value(const OutTopic &topic, const Sample &sample, const std::string &origin)
{
    const OutRule &rule = *topic.rule;
    const std::string_view unit = unit_of(topic.facts);
    Payload payload = make_payload(rule.payload, topic.tag, sample, sample.quality, unit);
    Publication publication;
    publication.topic = topic.mqtt;
    publication.payload = std::move(payload.bytes);
    publication.qos = rule.qos;
    publication.retain = rule.retain;
    publication.content_type = payload.content_type;
    publication.is_utf8 = payload.is_utf8;
    publication.expiry_s = rule.expiry_s;
    publication.properties = describing_properties(sample, sample.quality);
    if (!unit.empty())
        publication.properties.emplace_back(property::kUnit, unit);
    publication.properties.emplace_back(property::kOrigin, origin);
    return publication;
}

Publication make_clearing(const std::string &mqtt, const std::string &origin)
{
    Publication publication;
    publication.topic = mqtt;
    publication.retain = true;
    publication.properties = {{property::kOrigin, origin}};
    return publication;
}

Publication make_announcement(const std::string &mqtt, std::string text, const std::string &origin)
{
    Publication publication;
    publication.topic = mqtt;
    publication.payload = std::move(text);
    publication.retain = true;
    publication.content_type = kJson;
    publication.is_utf8 = true;
    publication.properties = {{property::kOrigin, origin}};
    return publication;
}

} // namespace kp::mqtt
