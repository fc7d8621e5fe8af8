#include "broker/broker_choice.h"

#include <utility>

namespace kp::mqtt {

// There may be fewer than before, until start_over() is called.
const BrokerSettings &BrokerChoice::now() const
{
    const auto brokers = configuration_.brokers();
    return *brokers[at_ < brokers.size() ? at_ : 0];
}

void BrokerChoice::go_on()
{
    at_ = (at_ + 1) % configuration_.brokers().size();
}

bool BrokerChoice::is_news(const std::string &reason)
{
    return std::exchange(reasons_[now().address()], reason) != reason;
}

} // namespace kp::mqtt
