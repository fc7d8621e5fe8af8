// How the bridge stays in touch with the broker over many connections: when it connects, what it
// asks first, and whether the broker has kept what it had from the connection before.
//
// After a connection the order is: subscriptions, the state "online", then values. On a connection
// after the first, the retained state is read before. If that tells that the broker has kept what
// it had (`ConnectionNames`), only changes are sent; otherwise everything is. Where there is a
// shared tree, all that the broker keeps of it is read before values are sent.
#pragma once

#include "base/counters.h"
#include "broker/backoff.h"
#include "broker/broker_choice.h"
#include "broker/connection_names.h"
#include "broker/state_message.h"
#include "broker/subscriptions.h"
#include "broker/witness.h"
#include "config/configuration.h"
#include "link/broker_link.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kp::mqtt {

// What the session asks its owner, and tells it.
struct SessionEvents {
    std::function<std::vector<Subscription>()> subscriptions;
    // The last value that the broker has acknowledged and is to keep; null when there is none.
    std::function<const Publication *()> last_kept;
    // The subscriptions are made, and what the broker has kept is about to arrive.
    std::function<void()> reading;
    // Values may be sent. `kept` says that the broker still has all that it acknowledged;
    // `has_read` that all that it keeps of a shared tree has arrived.
    std::function<void(bool kept, bool has_read)> online;
    std::function<void()> lost;
    std::function<void(int id, const Answer &answer)> acknowledged;
    std::function<void(const Message &message)> received;
    // The broker has answered for a subscription: it has made it, or refuses it.
    std::function<void(const std::string &filter, bool is_made)> answered_for;
    // A line about the connection for who looks at the service.
    std::function<void(const std::string &text)> status;
};

class BrokerSession {
  public:
    BrokerSession(const Configuration &configuration, std::string origin, SessionEvents events,
                  Counters &counters);

    // What to poll: the descriptor is -1 while there is no connection.
    int fd() const;
    short poll_events() const;
    void serve(short ready);

    // Connects, gives up or goes online, when it is time. Call it after serve().
    void turn(Clock::time_point now);
    // When turn() has something to do that no descriptor announces.
    std::optional<Clock::time_point> due() const;

    bool is_online() const
    {
        return phase_ == Phase::online;
    }
    bool may_send() const;
    SendOutcome publish(const Publication &publication, int &id, std::string &refusal);

    // Says offline, as far as that is quick, then goodbye.
    void leave();

    // To be called after the configuration has changed. On a connection, subscriptions that differ
    // are made or ended; without one, the next attempt comes at once.
    void renew(Clock::time_point now);
    // Does the same with a new connection. Call leave() before the configuration changes.
    void connect_anew(Clock::time_point now);

  private:
    // In `asking` the session asks for the retained state. In `reading` it takes in what the broker
    // keeps of a shared tree. The session's own state "online" comes back after all of that, and so
    // marks the end of `reading`.
    enum class Phase { waiting, connecting, asking, reading, online };

    BrokerEvents link_events();
    void connected();
    void acknowledged(int id, const Answer &answer);
    void subscribed(int id, const Answer &answer);
    void received(const Message &message);
    void closed(const std::string &why, int refusal);
    void connect(Clock::time_point now);
    void drop_connection(Clock::time_point now);
    void end_link(Clock::time_point now);
    void report_failure(milliseconds delay);
    void ask_for_state();
    void ask_for_witness();
    void announce(bool kept);
    void go_online(bool has_read);
    void hear_state(const Message &state);
    void send_state(const char *text);
    Publication state_message(const char *text) const;
    void choose_broker(bool was_good);
    void start_over();
    void take_up_the_session();
    void tell_of_the_session() const;

    const Configuration &configuration_;
    const SessionEvents events_;
    Counters &counters_;

    StateMessage state_;
    std::unique_ptr<BrokerLink> link_;
    Phase phase_ = Phase::waiting;
    Clock::time_point phase_ends_{}; // when to connect, or to stop waiting for an answer
    Clock::time_point online_since_{};
    Backoff backoff_;
    BrokerChoice choice_;
    ConnectionNames names_;
    Witness witness_;
    bool kept_ = false;
    Subscriptions subscriptions_;

    bool is_closed_ = false;
    std::string close_reason_;
    int refusal_ = 0;

    int state_id_ = 0; // of the state message that is not acknowledged
};

} // namespace kp::mqtt
