// What a service manager is told, over the socket that it names in NOTIFY_SOCKET; nothing without
// one.
#pragma once

#include <chrono>
#include <string>

namespace kp::tool {

class ServiceManager {
  public:
    ServiceManager();

    void ready() const;
    void stopping() const;
    // The configuration is being read again; ready() says that this is done.
    void reloading() const;
    void status(const std::string &text) const;
    // Says that the main loop turns, if the manager watches it and it is time.
    void keep_watchdog_quiet(std::chrono::steady_clock::time_point now);

  private:
    void tell(const std::string &text) const;

    std::string socket_;
    std::chrono::microseconds interval_{0}; // half of what the manager allows; 0: it does not watch
    std::chrono::steady_clock::time_point told_at_{};
};

} // namespace kp::tool
