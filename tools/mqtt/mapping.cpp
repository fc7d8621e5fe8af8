#include "mapping.h"

#include "common/text.h"
#include "common/topic_name.h"
#include "names/topic_names.h"
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

Json out_line(const std::string &tag, const OutRule &rule, const StoreReader &reader)
{
    Json line{{"direction", "out"},
              {"tag", tool::escaped(tag)},
              {"topic", to_mqtt_topic(rule.prefix, tag)},
              {"rule", rule.name},
              {"qos", rule.qos},
              {"retain", rule.retain},
              {"payload", mode_name(rule.payload)}};
    Sample sample;
    const bool readable = reader.read(tag, sample) == ReadOutcome::read;
    line["type"] = readable ? Json(kp_type2str(sample.type)) : Json();
    line["has_value"] = readable && sample.has_value;
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
    return line;
}

} // namespace

void print_mapping(const Configuration &configuration, std::ostream &out)
{
    const StoreReader reader;
    (void)reader.for_each_topic([&](const std::string &tag) {
        if (const OutRule *rule = configuration.rule_for(tag))
            out << out_line(tag, *rule, reader).dump() << '\n';
    });
    for (const InRule &rule : configuration.in)
        out << in_line(rule).dump() << '\n';
}

} // namespace kp::mqtt
