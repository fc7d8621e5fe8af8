// The message at the state topic that says whether the bridge is there, which is also its will. It
// asks of the broker what that can do: less from the attempt on that the broker has refused.
#pragma once

#include "config/configuration.h"
#include "messages/message.h"

#include <string>

namespace kp::mqtt {

inline constexpr const char *kConnection = "connection"; // a property: which one it speaks of

class StateMessage {
  public:
    StateMessage(const Configuration &configuration, std::string origin)
        : configuration_(configuration), origin_(std::move(origin))
    {
    }

    // `connection` names the connection, `broker` is the address of the broker in use.
    Publication with(const char *text, const std::string &connection,
                     const std::string &broker) const;
    // Whether the broker is asked to keep it.
    bool is_retained() const
    {
        return is_retained_;
    }

    // A broker refuses a will that asks for more than it can do. Says whether the message asks for
    // less from now on.
    bool ask_for_less(int refusal);
    // Another broker may be able to do more.
    void ask_for_all();

  private:
    const Configuration &configuration_;
    const std::string origin_;
    int qos_ = 1;
    bool is_retained_ = true;
};

} // namespace kp::mqtt
