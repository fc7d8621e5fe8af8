// Which of the brokers is tried, and what has been said of each.
#pragma once

#include "config/configuration.h"

#include <map>
#include <string>

namespace kp::mqtt {

class BrokerChoice {
  public:
    explicit BrokerChoice(const Configuration &configuration) : configuration_(configuration)
    {
    }

    const BrokerSettings &now() const;

    // To be called when a connection is lost that was good: the first broker comes first again.
    void start_over()
    {
        at_ = 0;
    }
    // There was none, or it was a short one: the next broker has its turn.
    void go_on();

    // Whether a reason for the lack of a connection is another than the last one for this broker.
    bool is_news(const std::string &reason);
    void forget_reasons()
    {
        reasons_.clear();
    }

  private:
    const Configuration &configuration_;
    size_t at_ = 0;
    std::map<std::string, std::string> reasons_; // by the address
};

} // namespace kp::mqtt
