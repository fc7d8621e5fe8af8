// A value that a broker must have if it has kept everything: the last one that it acknowledged. It
// is asked for by its topic when a connection comes back.
#pragma once

#include "messages/message.h"

#include <optional>
#include <string>
#include <utility>

namespace kp::mqtt {

class Witness {
  public:
    void ask_for(Publication value)
    {
        value_ = std::move(value);
        is_there_ = false;
    }

    // Whether the message is the value, or a later one of the same device, which can have arrived
    // without an acknowledgement. Notes that it is there.
    bool hears(const Message &message);

    bool is_there() const
    {
        return is_there_;
    }

    // Returns the topic that was asked for, or an empty text.
    std::string forget();

  private:
    std::optional<Publication> value_;
    bool is_there_ = false;
};

} // namespace kp::mqtt
