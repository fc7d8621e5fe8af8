// Tries what the bridge does when it connects, one step after the other, and prints how each went.
// It comes to the broker under a name of its own, so that a running bridge stays connected, and
// publishes nothing.
#pragma once

#include "config/configuration.h"
#include "link/broker_link.h"

#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>

namespace kp::mqtt {

class ConnectionCheck {
  public:
    // For one of the brokers. All must outlive it.
    ConnectionCheck(const Configuration &configuration, const BrokerSettings &broker,
                    std::ostream &out);

    // Returns whether all steps went well; one that fails ends it, but for subscriptions.
    bool run();

  private:
    bool find_addresses();
    bool reach(const std::string &address);
    bool join();
    bool subscribe_all();
    void subscribed(int id, const Answer &answer);
    bool wait_until(const std::function<bool()> &is_done);
    BrokerEvents events();
    bool say(const std::string &step, const std::string &result, const std::string &problem);

    const Configuration &configuration_;
    BrokerSettings settings_;
    std::ostream &out_;
    std::unique_ptr<BrokerLink> link_;
    bool is_connected_ = false;
    std::optional<std::string> closed_;        // and why
    std::map<int, std::string> subscriptions_; // not answered yet, by the id of the request
    bool all_granted_ = true;
};

} // namespace kp::mqtt
