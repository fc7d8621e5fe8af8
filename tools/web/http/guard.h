// Who may ask: pages of elsewhere may not, not even when their name has been made to lead here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kp::web {

class Guard {
  public:
    // The names that the device is called by, besides those of the loopback; in small letters.
    explicit Guard(std::vector<std::string> hosts);

    // Says whether a Host header names this device, with whatever port.
    bool is_own_host(std::string_view host) const;
    // Says whether an Origin header names the page of the host that is asked.
    static bool is_same_origin(std::string_view origin, std::string_view host);

  private:
    std::vector<std::string> hosts_;
};

} // namespace kp::web
