// The messages that were sent and that the broker has not acknowledged yet.
#pragma once

#include "messages/message.h"

#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

class Unacknowledged {
  public:
    using Messages = std::unordered_map<int, Publication>; // by the id of the acknowledgement

    void add(int id, const Publication &publication);

    // The message that is acknowledged or refused; nothing for an id that is not known.
    std::optional<Publication> take(int id);
    // All of them, which nobody will acknowledge any more.
    Messages take_all();

    // Says whether a message of the topic is among them.
    bool has(const std::string &topic) const;
    // Says whether a message that clears the topic is among them.
    bool has_clearing_of(const std::string &topic) const;

    // When the oldest change that one of them stands for was seen; nothing when there is none.
    std::optional<Clock::time_point> oldest() const;

  private:
    Messages messages_;
};

} // namespace kp::mqtt
