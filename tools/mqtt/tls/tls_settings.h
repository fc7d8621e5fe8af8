// What the configuration says of the encryption.
#pragma once

#include <string>

namespace kp::mqtt {

struct TlsSettings {
    std::string ca_file;
    std::string ca_path;
    std::string cert_file;
    std::string key_file;

    bool operator==(const TlsSettings &) const = default;
};

} // namespace kp::mqtt
