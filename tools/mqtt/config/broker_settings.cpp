#include "config/broker_settings.h"

#include <tuple>

namespace kp::mqtt {

std::string BrokerSettings::address() const
{
    return host + ":" + std::to_string(port);
}

bool BrokerSettings::connects_like(const BrokerSettings &other) const
{
    const auto parts = [](const BrokerSettings &broker) {
        return std::tie(broker.host, broker.port, broker.client_id, broker.credentials_file,
                        broker.keep_alive_s, broker.session_expiry_s, broker.tls);
    };
    return parts(*this) == parts(other);
}

} // namespace kp::mqtt
