// The topics that wait for a time: what may go only later, such as a value that its rule holds back
// or that is in the middle of a write, and what is sent again when its `max-interval` is over. When
// the time has come, a topic is put in line with those that changed.
#pragma once

#include "topics/pending.h"
#include "topics/state_file.h"
#include "topics/topic_table.h"

#include <map>
#include <optional>
#include <string>

namespace kp::mqtt {

class Schedule {
  public:
    Schedule(TopicTable &topics, const StateFile &state, PendingNames &pending)
        : topics_(topics), state_(state), pending_(pending)
    {
    }

    // Lets a topic wait, unless it waits for a time already. `since` is when its change was seen.
    void defer(OutTopic &topic, Clock::time_point until, Clock::time_point since);
    // The same for an MQTT topic that need not be a tag's.
    void defer(const std::string &mqtt, Clock::time_point until, Clock::time_point since);

    // Lets the topic be sent again where its rule says so and it was sent before.
    void remind(OutTopic &topic);

    // Put in line what has waited until now.
    void take_deferred(Clock::time_point now);
    void take_reminders(Clock::time_point now);

    // When the next of them has waited long enough; nothing when none waits.
    std::optional<Clock::time_point> due() const;

    // When the oldest change that is deferred was seen; nothing when none is. What is only to be
    // sent again does not count.
    std::optional<Clock::time_point> oldest() const;

  private:
    TopicTable &topics_;
    const StateFile &state_;
    PendingNames &pending_; // MQTT topics

    // By when they may go.
    std::multimap<Clock::time_point, PendingNames::Waiting> deferred_;
    std::multimap<Clock::time_point, std::string> reminders_; // MQTT topics
};

} // namespace kp::mqtt
