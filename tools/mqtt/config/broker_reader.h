// Reads what the configuration says of the brokers.
#pragma once

#include "common/config/table_reader.h"
#include "config/broker_settings.h"

#include <string>
#include <vector>

namespace kp::mqtt {

// The brokers of a configuration: [broker] first, then each [[broker.fallback]], which has what it
// does not say from the first.
std::vector<BrokerSettings> read_brokers(const toml::table &broker, const std::string &path,
                                         const std::string &device, tool::Problems &problems);

} // namespace kp::mqtt
