#include "mapping.h"

#include "common/dictionary/live_dictionary.h"
#include "common/names/topic_name.h"
#include "common/text/text.h"
#include "discovery/discovery.h"
#include "store/store_reader.h"

#include <nlohmann/json.hpp>
#include <ostream>

namespace kp::mqtt {

namespace {

using Json = nlohmann::ordered_json;

const char *mode_name(PayloadMode mode)
{
    switch (mode) {
    case PayloadMode::plain:
        return "plain";
    case PayloadMode::json:
        return "json";
    case PayloadMode::raw:
        break;
    }
    return "raw";
}

// What the dictionary adds to a tag's messages.
void add_meaning(Json &line, const Configuration &configuration, const OutTopic &topic,
                 const Sample &sample)
{
    if (const std::string_view unit = unit_of(topic.facts); !unit.empty())
        line["unit"] = unit;
    const auto message =
        sample.has_value ? discovery_message(configuration, topic, sample.type) : std::nullopt;
    if (message)
        line["discovery"] = message->mqtt;
}

Json out_line(const Configuration &configuration, const OutTopic &topic, const StoreReader &reader)
{
    const OutRule &rule = *topic.rule;
    Json line{{"direction", "out"},
              {"tag", tool::escaped(topic.tag)},
              {"topic", topic.mqtt},
              {"rule", rule.name},
              {"qos", rule.qos},
              {"retain", rule.retain},
              {"payload", mode_name(rule.payload)}};
    Sample sample;
    const bool readable = reader.read(topic.tag, sample) == ReadOutcome::read;
    line["type"] = readable ? Json(kp_type2str(sample.type)) : Json();
    line["has_value"] = readable && sample.has_value;
    if (readable)
        add_meaning(line, configuration, topic, sample);
    return line;
}

Json in_line(const InRule &rule)
{
    Json line{{"direction", "in"},
              {"filter", rule.full_filter()},
              {"tags", tool::join_levels(rule.tags, rule.filter)},
              {"rule", rule.name},
              {"qos", rule.qos},
              {"payload", mode_name(rule.payload)},
              {"retained", rule.retained},
              {"shared", rule.shared}};
    line["type"] = rule.type ? Json(kp_type2str(*rule.type)) : Json();
    line["answers"] = rule.answers.empty() ? Json() : Json(rule.answers);
    return line;
}

} // namespace

void print_mapping(const Configuration &configuration, std::ostream &out)
{
    const StoreReader reader;
    const tool::LiveDictionary dictionary(tool::dictionary_place(configuration.dictionary));
    (void)reader.for_each_topic([&](const std::string &tag) {
        const OutRule *rule = configuration.rule_for(tag);
        if (!rule)
            return;
        OutTopic topic;
        topic.tag = tag;
        topic.mqtt = rule->topic_of(tag);
        topic.rule = rule;
        topic.facts = dictionary.current()->facts_of(tag);
        out << out_line(configuration, topic, reader).dump() << '\n';
    });
    for (const InRule &rule : configuration.in)
        out << in_line(rule).dump() << '\n';
}

} // namespace kp::mqtt
