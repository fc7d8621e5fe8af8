// What the bridge has to renew when it takes over a configuration that was read again.
#pragma once

#include "config/configuration.h"

namespace kp::mqtt {

enum class Reach {
    rules,      // it can be taken over where the connection stands
    connection, // it needs a new connection
    everything, // it needs a new start
};

Reach reach_of(const Configuration &before, const Configuration &after);

} // namespace kp::mqtt
