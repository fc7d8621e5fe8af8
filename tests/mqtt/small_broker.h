// A broker of few words, for what mosquitto cannot be made to do: it refuses subscriptions, and
// sends whatever the test likes. It takes every client and acknowledges what it is sent, and keeps
// nothing.
#pragma once

#include "layout/unique_fd.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kptest {

class SmallBroker {
  public:
    // What it answers to a subscription: the quality of service, or from 0x80 on a refusal. It is
    // called on a thread of its own.
    using Subscribing = std::function<uint8_t(const std::string &filter)>;

    explicit SmallBroker(Subscribing subscribing = [](const std::string &) { return uint8_t{1}; });
    ~SmallBroker();
    SmallBroker(const SmallBroker &) = delete;
    SmallBroker &operator=(const SmallBroker &) = delete;

    int port() const
    {
        return port_;
    }
    // How many clients it has taken so far.
    int clients() const
    {
        return clients_;
    }
    // Sends a message of so many bytes to the client that came last, as far as it takes them; how
    // many bytes that were.
    size_t send_message(const std::string &topic, size_t payload_bytes);

  private:
    void run();
    void serve(int client);
    bool send_whole(int client, const std::string &packet);
    std::string answer(uint8_t first, const std::string &body) const;
    void hold(std::shared_ptr<kp::UniqueFd> client);
    std::shared_ptr<kp::UniqueFd> held() const;

    const Subscribing subscribing_;
    kp::UniqueFd listener_;
    int port_ = 0;
    std::atomic<int> clients_ = 0;
    std::mutex sending_; // a whole packet
    mutable std::mutex mutex_;
    std::shared_ptr<kp::UniqueFd> client_; // the one that came last; it is kept open by who uses it
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

} // namespace kptest
