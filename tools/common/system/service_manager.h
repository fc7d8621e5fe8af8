// Tells the service manager how the program is, over the socket that the manager names in the
// variable NOTIFY_SOCKET. Without that variable nothing is sent.
#pragma once

#include <chrono>
#include <string>

namespace kp::tool {

class ServiceManager {
  public:
    ServiceManager();

    void ready() const;
    void stopping() const;
    // Says that the configuration is being read again; ready() then says that this is done.
    void reloading() const;
    void status(const std::string &text) const;
    // Says that the main loop still runs, if the manager wants to know and if it is time.
    void keep_watchdog_quiet(std::chrono::steady_clock::time_point now);

  private:
    void tell(const std::string &text) const;

    std::string socket_;
    std::chrono::microseconds interval_{0}; // half of what the manager allows; 0: it does not watch
    std::chrono::steady_clock::time_point told_at_{};
};

} // namespace kp::tool
