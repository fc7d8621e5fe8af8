// What the configuration says of the brokers.
#pragma once

#include "base/clock.h"
#include "tls/tls_settings.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kp::mqtt {

struct BrokerSettings {
    std::string host = "localhost";
    int port = 0; // 0 until read, then 1883 or with TLS 8883
    std::string client_id;
    std::string credentials_file; // user in the first line, password in the second
    int keep_alive_s = 30;
    uint32_t session_expiry_s =
        0; // how long commands wait while the bridge is away; 0: they do not
    milliseconds connect_timeout{10'000};
    milliseconds reconnect_min{1'000};
    milliseconds reconnect_max{60'000};
    double burst_rate = 500; // messages a second after a connection; 0: as fast as they go
    std::optional<TlsSettings> tls;

    // As HOST:PORT.
    std::string address() const;

    // Whether a connection for the one does for the other, too.
    bool connects_like(const BrokerSettings &other) const;
};

} // namespace kp::mqtt
