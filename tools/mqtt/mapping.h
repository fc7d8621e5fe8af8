// What the bridge would do with the topics that are live now, one JSON line each.
#pragma once

#include "config/configuration.h"

#include <iosfwd>

namespace kp::mqtt {

void print_mapping(const Configuration &configuration, std::ostream &out);

} // namespace kp::mqtt
