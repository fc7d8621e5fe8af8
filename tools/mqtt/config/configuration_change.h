// How far a configuration that was read again reaches, compared with the one in force.
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
