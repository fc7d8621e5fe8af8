#include "messages/property_list.h"

#include "common/text/text.h"
#include "names/topic_names.h"

#include <cstdlib>

namespace kp::mqtt {

namespace {

// What a broker says is cut here for the log.
constexpr size_t kMostReasonBytes = 200;
// A message of a tag carries a dozen; of more the bridge reads nothing.
constexpr size_t kMostProperties = 100;

std::string text_of(const mosquitto_property *list, int identifier)
{
    char *text = nullptr;
    if (!mosquitto_property_read_string(list, identifier, &text, false) || !text)
        return {};
    std::string copy(text);
    std::free(text);
    return copy;
}

std::string reason_string(const mosquitto_property *list)
{
    const std::string text = text_of(list, MQTT_PROP_REASON_STRING);
    return tool::escaped(std::string_view(text).substr(0, kMostReasonBytes));
}

} // namespace

std::string property_of(const UserProperties &properties, std::string_view name)
{
    for (const auto &[known, value] : properties)
        if (known == name)
            return value;
    return {};
}

// An origin is DEVICE/BOOT.
std::string sender_of(const Message &message)
{
    const std::string origin = property_of(message.properties, property::kOrigin);
    return origin.substr(0, origin.find('/'));
}

void PropertyList::describe(const Publication &publication)
{
    if (publication.content_type)
        note(mosquitto_property_add_string(&list_, MQTT_PROP_CONTENT_TYPE,
                                           publication.content_type));
    if (publication.is_utf8)
        note(mosquitto_property_add_byte(&list_, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1));
    if (publication.expiry_s)
        add_number(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, publication.expiry_s);
    if (!publication.correlation.empty())
        note(mosquitto_property_add_binary(&list_, MQTT_PROP_CORRELATION_DATA,
                                           publication.correlation.data(),
                                           static_cast<uint16_t>(publication.correlation.size())));
    for (const auto &[name, value] : publication.properties)
        note(mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                                value.c_str()));
}

void PropertyList::add_number(int identifier, uint32_t value)
{
    note(mosquitto_property_add_int32(&list_, identifier, value));
}

void PropertyList::add_subscription(uint32_t number)
{
    note(mosquitto_property_add_varint(&list_, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, number));
}

std::vector<uint32_t> subscriptions(const mosquitto_property *list)
{
    std::vector<uint32_t> found;
    uint32_t number = 0;
    while (found.size() < kMostProperties &&
           (list = mosquitto_property_read_varint(list, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, &number,
                                                  !found.empty())))
        found.push_back(number);
    return found;
}

std::string response_topic(const mosquitto_property *list)
{
    return text_of(list, MQTT_PROP_RESPONSE_TOPIC);
}

std::string correlation(const mosquitto_property *list)
{
    void *bytes = nullptr;
    uint16_t size = 0;
    if (!mosquitto_property_read_binary(list, MQTT_PROP_CORRELATION_DATA, &bytes, &size, false))
        return {};
    std::string copy(static_cast<const char *>(bytes), bytes ? size : 0);
    std::free(bytes);
    return copy;
}

UserProperties user_properties(const mosquitto_property *list)
{
    UserProperties found;
    char *name = nullptr;
    char *value = nullptr;
    bool again = false;
    while (found.size() < kMostProperties &&
           (list = mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &name, &value,
                                                       again))) {
        found.emplace_back(name ? name : "", value ? value : "");
        std::free(name);
        std::free(value);
        again = true;
    }
    return found;
}

Answer answer_of(int reason, const mosquitto_property *list)
{
    Answer answer{reason, mosquitto_reason_string(reason)};
    if (const std::string said = reason_string(list); !said.empty())
        answer.text += " (it says: " + said + ')';
    return answer;
}

} // namespace kp::mqtt
