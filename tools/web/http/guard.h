// Says who may ask. A page of another site may not, even if its name was made to lead to this
// device.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kp::web {

class Guard {
  public:
    // Takes the names that the device is called by besides those of the loopback.
    explicit Guard(const std::vector<std::string> &hosts);

    // Says whether a Host header names this device. Its port does not matter.
    bool is_own_host(std::string_view host) const;
    // Says whether an Origin header names the page of the host that is asked.
    static bool is_same_origin(std::string_view origin, std::string_view host);

  private:
    std::vector<std::string> hosts_; // in small letters
};

} // namespace kp::web
