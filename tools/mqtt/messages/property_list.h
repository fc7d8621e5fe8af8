// The properties of an MQTT 5 packet, as libmosquitto wants and gives them.
#pragma once

#include "messages/message.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

namespace kp::mqtt {

// A list that is being made. It is freed with its owner, unless let_go() was called.
class PropertyList {
  public:
    PropertyList() = default;
    PropertyList(const PropertyList &) = delete;
    PropertyList &operator=(const PropertyList &) = delete;
    ~PropertyList()
    {
        mosquitto_property_free_all(&list_);
    }

    void describe(const Publication &publication);
    void add_number(int identifier, uint32_t value);
    void add_subscription(uint32_t number);

    // False when a property could not be added: out of memory, or not UTF-8.
    bool is_complete() const
    {
        return is_complete_;
    }
    mosquitto_property *get()
    {
        return list_;
    }
    // For after a call that has taken the list over.
    void let_go()
    {
        list_ = nullptr;
    }

  private:
    void note(int result)
    {
        is_complete_ = is_complete_ && result == MOSQ_ERR_SUCCESS;
    }

    mosquitto_property *list_ = nullptr;
    bool is_complete_ = true;
};

// Where an answer to the message is to go, and what is to be sent with it; empty where there is
// none.
std::string response_topic(const mosquitto_property *list);
std::string correlation(const mosquitto_property *list);

UserProperties user_properties(const mosquitto_property *list);
std::vector<uint32_t> subscriptions(const mosquitto_property *list);

// The text for a reason, with the reason string that the broker has sent beside it, if any. What
// the broker says is made printable.
Answer answer_of(int reason, const mosquitto_property *list);

} // namespace kp::mqtt
