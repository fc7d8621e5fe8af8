// Which values from the broker are stale, because their sender is away or there is no connection,
// and the quality that their tags show for that.
#pragma once

#include "inbound/inbound_rules.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace kp::mqtt {

class Staleness {
  public:
    // `set_quality` is called for each written tag that is to show another quality from now on.
    Staleness(InboundRules &rules,
              std::function<void(const std::string &tag, uint8_t quality)> set_quality)
        : rules_(rules), set_quality_(std::move(set_quality))
    {
    }

    // Takes note of the state of a sender. Says whether the message may be such a state.
    bool hear_sender(const Message &message);

    // Says whether there is a connection. Without one, values become stale if their rules say so.
    // When it is back, review() gives them the quality of their messages again.
    void set_connected(bool is_connected);
    void review();

    // The quality that a value shows now.
    uint8_t quality_of(const InboundRule &rule, const TakenTag &taken) const;

  private:
    void review(InboundRule &rule);

    InboundRules &rules_;
    const std::function<void(const std::string &tag, uint8_t quality)> set_quality_;
    bool is_connected_ = false;
};

} // namespace kp::mqtt
