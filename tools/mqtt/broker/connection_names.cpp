#include "broker/connection_names.h"

#include "broker/state_message.h"

#include <random>

namespace kp::mqtt {

namespace {

std::string random_name()
{
    std::random_device random;
    return std::to_string(random()) + std::to_string(random());
}

} // namespace

void ConnectionNames::begin_attempt()
{
    if (current_ == last_)
        current_ = random_name();
}

void ConnectionNames::went_online(const std::string &address)
{
    last_ = current_;
    last_address_ = address;
}

bool ConnectionNames::is_of_current(const Message &state) const
{
    return property_of(state.properties, kConnection) == current_;
}

bool ConnectionNames::tells_that_all_is_kept(const Message &state, const std::string &address,
                                             bool has_witness) const
{
    if (state.payload != kOffline || none_was_online() || address != last_address_)
        return false;
    return property_of(state.properties, kConnection) == last_ ||
           (is_of_current(state) && has_witness);
}

} // namespace kp::mqtt
