// One connection to the broker, from the attempt to its end. Each attempt gets a new one, so that
// nothing of an old connection is ever sent again behind the bridge's back. It keeps no queue: the
// owner sends only while may_send() says so. All but the connecting itself happens on the owner's
// thread.
#pragma once

#include "config/configuration.h"
#include "config/credentials.h"
#include "link/attempt.h"
#include "link/packet_watch.h"
#include "messages/message.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>

struct mosquitto_message;

namespace kp::mqtt {

// What the owner hears, always from within BrokerLink::serve().
struct BrokerEvents {
    std::function<void()> connected;
    std::function<void(int id, const Answer &answer)> acknowledged;
    std::function<void(int id, const Answer &answer)> subscribed;
    std::function<void(const Message &message)> received;
    // Called at most once, and nothing is called after it. `refusal` is the broker's reason where
    // it has refused the connection, else 0. The link must not be destroyed within the call.
    std::function<void(const std::string &why, int refusal)> closed;
};

enum class SendOutcome {
    sent,    // at QoS 0 done with, else acknowledged later
    refused, // this one cannot go, for example because it is too large
    lost,    // the connection is gone; closed() follows
};

class BrokerLink {
  public:
    // Starts connecting, with a will or without. A problem is one of the configuration, as a
    // certificate that cannot be read.
    static tool::Result<std::unique_ptr<BrokerLink>> start(const BrokerSettings &settings,
                                                           const Credentials &credentials,
                                                           const Publication *will,
                                                           BrokerEvents events);
    BrokerLink(const BrokerLink &) = delete;
    BrokerLink &operator=(const BrokerLink &) = delete;

    // What to poll, and for what.
    int fd() const;
    short poll_events() const;

    // Reads, writes and keeps the connection alive. Call it after poll() and about once a second.
    void serve(short ready);

    // Whether a further publication would go out now instead of waiting in memory.
    bool may_send() const;
    SendOutcome publish(const Publication &publication, int &id, std::string &refusal);
    bool subscribe(const Subscription &subscription, int &id);
    void unsubscribe(const std::string &filter);

    // Whether the broker had kept what waited for this client, and how long it will, in seconds; 0
    // where nothing was asked for.
    bool has_session() const
    {
        return has_session_;
    }
    uint32_t session_expiry_s() const
    {
        return session_expiry_s_;
    }

    // How the connection is encrypted, in words; empty where it is not.
    std::string protection() const;

    // Says goodbye, so that the broker does not publish the will.
    void disconnect();

  private:
    BrokerLink(const BrokerSettings &settings, BrokerEvents events);
    std::string prepare(const BrokerSettings &settings, const Credentials &credentials,
                        const Publication *will);
    std::string set_will(const Publication &will);
    std::string set_tls(const TlsSettings &tls, const std::string &host);
    void set_callbacks();
    int read();
    std::string end_text(int error) const;
    void on_connect(int reason, int flags, const mosquitto_property *list);
    void learn_limits(const mosquitto_property *list);
    void on_publish(int id, const Answer &answer);
    void on_message(const mosquitto_message &message, const mosquitto_property *list);
    void close(const std::string &why, int refusal = 0);

    const BrokerEvents events_;
    std::shared_ptr<Attempt> attempt_;
    mosquitto *client_ = nullptr; // of the attempt
    bool is_online_ = false;
    bool was_online_ = false;
    bool is_closed_ = false;
    size_t most_unacknowledged_;
    std::unordered_set<int> unacknowledged_; // publications at QoS 1 and 2
    int most_qos_ = 2;
    bool broker_retains_ = true;
    bool broker_numbers_ = true; // subscriptions, where they have a number
    PacketWatch watch_;
    bool has_heard_ = false; // a whole packet, since it was set to false
    bool has_session_ = false;
    uint32_t session_expiry_s_;
};

} // namespace kp::mqtt
