// Which values of the store have come from the broker. Any thread may call it.
#pragma once

#include "shared/shared_tree.h"
#include "store/value_mark.h"

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

class BroughtValues {
  public:
    // To be called before a message's value is written, since others can see the value as soon as
    // it is there.
    void begin(const std::string &tag, const Sample &sample, MessageKey key);
    // To be called after the write, with what the tag holds now, or null if the tag could not be
    // read. A local write that came in between is not the broker's, even if it has the same value.
    void complete(const std::string &tag, const Sample *current);
    void forget(const std::string &tag);

    // Gives the message that brought this value; nothing if the value has come from elsewhere.
    std::optional<MessageKey> key_of(const std::string &tag, const Sample &sample) const;

  private:
    struct Written {
        ValueMark value;
        MessageKey key = 0;
        bool is_under_way = true; // the time of the write is not known yet
        bool is(const ValueMark &seen) const
        {
            return is_under_way ? value.is_same_value(seen) : value == seen;
        }
    };

    mutable std::mutex mutex_;
    // The last two, since between reading a value and asking about it a newer one can be written.
    std::unordered_map<std::string, std::array<Written, 2>> written_;
};

} // namespace kp::mqtt
