#include "broker/witness.h"

#include <cstdint>
#include <cstdlib>

namespace kp::mqtt {

namespace {

uint64_t write_time_of(const UserProperties &properties)
{
    return std::strtoull(property_of(properties, property::kWriteTime).c_str(), nullptr, 10);
}

bool is_as_new_as(const Message &message, const Publication &sent)
{
    if (message.topic != sent.topic || property_of(message.properties, property::kOrigin) !=
                                           property_of(sent.properties, property::kOrigin))
        return false;
    return write_time_of(message.properties) > write_time_of(sent.properties) ||
           (message.payload == sent.payload && message.properties == sent.properties);
}

} // namespace

bool Witness::hears(const Message &message)
{
    if (!value_ || !is_as_new_as(message, *value_))
        return false;
    is_there_ = true;
    return true;
}

std::string Witness::forget()
{
    is_there_ = false;
    return value_ ? std::exchange(value_, {})->topic : std::string();
}

} // namespace kp::mqtt
