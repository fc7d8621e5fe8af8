// The names that the bridge gives its connections. The message at the state topic carries one, so
// that the message which the broker still keeps tells whether the broker has kept the rest too.
#pragma once

#include "messages/message.h"

#include <string>

namespace kp::mqtt {

class ConnectionNames {
  public:
    // To be called before each attempt to connect. Attempts share a name until one is online.
    void begin_attempt();
    // To be called when the connection is online, with the broker at that address.
    void went_online(const std::string &address);

    // The name of this connection, or of the attempt.
    const std::string &current() const
    {
        return current_;
    }
    // Whether no connection of this run has been online.
    bool none_was_online() const
    {
        return last_.empty();
    }

    bool is_of_current(const Message &state) const;

    // `state` is what the broker at `address` kept at the state topic, before this connection
    // writes there. If it is the will of the last connection that was online, the broker has kept
    // its data. If it is the will of an attempt since then, the broker must also have the last
    // value that it acknowledged, which `has_witness` says.
    bool tells_that_all_is_kept(const Message &state, const std::string &address,
                                bool has_witness) const;

  private:
    std::string current_;
    std::string last_; // the one that was online last, or empty
    std::string last_address_;
};

} // namespace kp::mqtt
