#include "discovery/discovery.h"

#include "common/names/pattern.h"
#include "common/values/value_text.h"
#include "names/topic_names.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace kp::mqtt {

namespace {

using nlohmann::ordered_json;

constexpr std::string_view kDigits = "0123456789abcdef";
constexpr const char *kSensor = "sensor";
constexpr const char *kBinarySensor = "binary_sensor";

// Units that one kind of quantity alone has in Home Assistant, whose classes bring icons and
// conversions. What the unit leaves open, as "%", "m" and "kWh" do, has none.
struct UnitClass {
    std::string_view unit;
    const char *name;
};
constexpr std::array<UnitClass, 24> kUnitClasses{{{"°C", "temperature"},
                                                  {"°F", "temperature"},
                                                  {"mV", "voltage"},
                                                  {"V", "voltage"},
                                                  {"mA", "current"},
                                                  {"A", "current"},
                                                  {"W", "power"},
                                                  {"kW", "power"},
                                                  {"VA", "apparent_power"},
                                                  {"var", "reactive_power"},
                                                  {"Hz", "frequency"},
                                                  {"kHz", "frequency"},
                                                  {"Pa", "pressure"},
                                                  {"hPa", "pressure"},
                                                  {"kPa", "pressure"},
                                                  {"mbar", "pressure"},
                                                  {"bar", "pressure"},
                                                  {"g", "weight"},
                                                  {"kg", "weight"},
                                                  {"m/s", "speed"},
                                                  {"km/h", "speed"},
                                                  {"L/min", "volume_flow_rate"},
                                                  {"m³/h", "volume_flow_rate"},
                                                  {"lx", "illuminance"}}};

bool is_plain(char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9');
}

// A name as one level of a topic there, which takes letters, digits, "_" and "-" alone. No two
// names become one.
std::string object_name(std::string_view name)
{
    std::string out;
    for (const char byte : name) {
        const auto code = static_cast<unsigned char>(byte);
        if (is_plain(byte))
            out += byte;
        else if (byte == '/')
            out += '-';
        else
            out += {'_', kDigits[code >> 4], kDigits[code & 15]};
    }
    return out;
}

// Undoes object_name(); nothing for what it does not write.
std::optional<std::string> name_of_object(std::string_view object)
{
    std::string name;
    while (!object.empty()) {
        const bool is_escape = object.size() >= 3 && object[0] == '_';
        const auto high = is_escape ? kDigits.find(object[1]) : kDigits.npos;
        const auto low = is_escape ? kDigits.find(object[2]) : kDigits.npos;
        if (is_escape && high != kDigits.npos && low != kDigits.npos)
            name += static_cast<char>(high * 16 + low);
        else if (is_plain(object[0]) || object[0] == '-')
            name += object[0] == '-' ? '/' : object[0];
        else
            return std::nullopt;
        object.remove_prefix(is_escape ? 3 : 1);
    }
    return name;
}

std::string topic_of(const Configuration &configuration, const char *kind, const std::string &tag)
{
    return configuration.discovery + '/' + kind + '/' + object_name(configuration.device) + '/' +
           object_name(tag) + "/config";
}

// Where the value stands in a message, for the templates of Home Assistant.
const char *value_in(PayloadMode mode)
{
    return mode == PayloadMode::json ? "value_json.value" : "value";
}

// A text that several tags share does not tell them apart.
std::string entity_name(const OutTopic &topic)
{
    const auto *description = topic.facts.description;
    if (!description || description->value.empty())
        return topic.tag;
    return description->is_of_pattern ? description->value + " (" + topic.tag + ")"
                                      : description->value;
}

// Of a boolean only the names of 0 and 1 count.
bool has_names(const tool::Facts &facts, uint32_t type)
{
    if (!facts.names)
        return false;
    if (type == KP_TYPE_BOOLEAN)
        return facts.names->value.contains(0) || facts.names->value.contains(1);
    return tool::is_number_type(type) && !tool::is_floating_type(type);
}

// The names become the states of an enumeration; a value without a name is none of them.
void describe_names(ordered_json &message, const OutTopic &topic, uint32_t type)
{
    ordered_json names = ordered_json::object();
    message["device_class"] = "enum";
    message["options"] = ordered_json::array();
    for (const auto &[number, name] : topic.facts.names->value) {
        const bool is_boolean = type == KP_TYPE_BOOLEAN;
        if (is_boolean && number != 0 && number != 1)
            continue;
        names[is_boolean ? (number ? "true" : "false") : std::to_string(number)] = name;
        message["options"].push_back(name);
    }
    // The template's language reads JSON's texts as JSON does, but for a letter in two escapes: so
    // letters beyond ASCII stand as they are. Braces in quotation marks end no template.
    message["value_template"] =
        "{{ " + names.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "[" +
        value_in(topic.rule->payload) + " | string | lower] | default(None) }}";
}

void describe_boolean(ordered_json &message, PayloadMode mode)
{
    if (mode == PayloadMode::json)
        message["value_template"] = "{{ value_json.value | string | lower }}";
    message["payload_on"] = "true";
    message["payload_off"] = "false";
}

void describe_value(ordered_json &message, const OutTopic &topic, uint32_t type)
{
    const PayloadMode mode = topic.rule->payload;
    if (has_names(topic.facts, type))
        return describe_names(message, topic, type);
    if (type == KP_TYPE_BOOLEAN)
        return describe_boolean(message, mode);
    if (mode == PayloadMode::json)
        message["value_template"] = "{{ value_json.value }}";
    if (!tool::is_number_type(type))
        return;
    message["state_class"] = "measurement";
    const std::string unit = topic.facts.unit ? topic.facts.unit->value : "";
    if (unit.empty())
        return;
    message["unit_of_measurement"] = unit;
    const auto known = std::ranges::find(kUnitClasses, unit, &UnitClass::unit);
    if (known != kUnitClasses.end())
        message["device_class"] = known->name;
}

} // namespace

bool is_discoverable(const Configuration &configuration, const std::string &tag)
{
    const OutRule *rule = configuration.rule_for(tag);
    return !configuration.discovery.empty() && rule && rule->payload != PayloadMode::raw;
}

std::optional<DiscoveryMessage> discovery_message(const Configuration &configuration,
                                                  const OutTopic &topic, uint32_t type)
{
    const bool is_wanted = !configuration.discovery.empty() && topic.facts.is_known &&
                           topic.rule->payload != PayloadMode::raw;
    if (!is_wanted || tool::is_binary_type(type))
        return std::nullopt;
    const std::string device = object_name(configuration.device);
    const bool is_binary = type == KP_TYPE_BOOLEAN && !has_names(topic.facts, type);
    std::string mqtt = topic_of(configuration, is_binary ? kBinarySensor : kSensor, topic.tag);
    if (!mqtt_topic_problem(mqtt).empty())
        return std::nullopt; // the name is too long to be one level of a topic
    ordered_json message{{"name", entity_name(topic)},
                         {"unique_id", device + '-' + object_name(topic.tag)},
                         {"state_topic", topic.mqtt},
                         {"availability_topic", configuration.state_topic}};
    describe_value(message, topic, type);
    message["device"] = {{"identifiers", {device}}, {"name", configuration.device}};
    message["origin"] = {{"name", "kp-mqtt"}};
    return DiscoveryMessage{std::move(mqtt),
                            message.dump(-1, ' ', false, ordered_json::error_handler_t::replace)};
}

std::array<std::string, 2> discovery_topics(const Configuration &configuration,
                                            const std::string &tag)
{
    return {topic_of(configuration, kSensor, tag), topic_of(configuration, kBinarySensor, tag)};
}

std::optional<std::string> tag_of_discovery(const Configuration &configuration,
                                            std::string_view mqtt)
{
    const std::string start = configuration.discovery + '/';
    if (configuration.discovery.empty() || !mqtt.starts_with(start))
        return std::nullopt;
    const auto levels = tool::split_levels(mqtt.substr(start.size()), tool::Dialect::mqtt);
    if (levels.size() != 4 || (levels[0] != kSensor && levels[0] != kBinarySensor) ||
        levels[1] != object_name(configuration.device) || levels[3] != "config")
        return std::nullopt;
    return name_of_object(levels[2]);
}

} // namespace kp::mqtt
