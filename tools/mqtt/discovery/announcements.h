// Keeps Home Assistant informed of the tags that are sent, by messages that the broker keeps. What
// stands there is known from the state file, so a run ends what an earlier one began.
//
// A tag is announced when its value goes. It stays announced while it is not there, since after a
// start of the device its provider may come late; only when the rules or the dictionary know it no
// more, or its type needs an entity of another kind, the message is cleared.
#pragma once

#include "discovery/discovery.h"
#include "topics/pending.h"
#include "topics/state_file.h"

#include <string>

namespace kp::mqtt {

class Announcements {
  public:
    Announcements(const Configuration &configuration, const TopicTable &topics,
                  const StateFile &state, PendingNames &pending)
        : configuration_(configuration), topics_(topics), state_(state), pending_(pending)
    {
    }

    // A value of this type of the tag goes out: marks what is to be told of the tag, unless that
    // was done for this type.
    void value_goes(OutTopic &topic, uint32_t type, Clock::time_point now);

    // Whether the dictionary is all that is written of the tags. While it is not, no tag is taken
    // for one that it does not know.
    void set_whole(bool is_whole)
    {
        is_whole_ = is_whole;
    }

    // The rules or the dictionary are others: marks what is to be told otherwise, or no more.
    void review(Clock::time_point now);

    // What is due in a topic that is no tag's: a message, nothing, or the clearing of what is kept.
    enum class What { message, stays, ends };
    struct Due {
        What what;
        std::string text; // of a message
    };
    // To be called when it goes at once, since a message counts as told.
    Due take_due(const std::string &mqtt);

  private:
    // Like take_due(), and whose message it is.
    struct Found {
        Due due;
        OutTopic *topic = nullptr;
    };

    Found find(const std::string &mqtt) const;
    void mark_if_new(const std::string &mqtt, Clock::time_point now);

    const Configuration &configuration_;
    const TopicTable &topics_;
    const StateFile &state_;
    PendingNames &pending_; // MQTT topics
    bool is_whole_ = true;
};

} // namespace kp::mqtt
