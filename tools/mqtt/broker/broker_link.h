// One connection to the broker, from the attempt to its end; a new one is made for each attempt, so
// that nothing of an old connection is ever sent again behind the bridge's back. It keeps no queue:
// the owner sends only while may_send() says so. All but the connecting itself, which can wait for a
// name server, happens on the owner's thread.
#pragma once

#include "broker/payload.h"
#include "config/configuration.h"

#include <memory>
#include <string>
#include <vector>

namespace kp::mqtt {

struct Credentials {
    std::string user;
    std::string password;
};

// Reads a credentials file. Refuses one that others than its owner and group can read, or others
// than the owner can write, or that belongs neither to root nor to this user.
Result<Credentials> read_credentials(const std::string &path);

// What is wrong with the rights of a file that holds a secret, or an empty text.
std::string secret_file_fault(const std::string &path);

struct Publication {
    std::string topic;
    std::string payload;
    int qos = 1;
    bool retain = false;
    const char *content_type = nullptr;
    bool is_utf8 = false;
    uint32_t expiry_s = 0;
    UserProperties properties;
    Clock::time_point since{}; // when the oldest change that it stands for was seen
};

struct Message {
    std::string topic;
    std::string payload;
    bool retain = false;
    UserProperties properties;
};

struct Subscription {
    std::string filter;
    int qos = 1;
    bool retained = false; // also what the broker kept
};

// Reasons with which a broker answers: from the first refusal on it has not taken the message.
constexpr int kFirstRefusal = 0x80;
constexpr int kQuotaExceeded = 0x97;
constexpr int kRetainNotSupported = 0x9a;
constexpr int kQosNotSupported = 0x9b;
std::string reason_text(int reason);

// Called from within BrokerLink::serve().
class BrokerEvents {
  public:
    virtual ~BrokerEvents() = default;
    virtual void connected() = 0;
    virtual void acknowledged(int id, int reason) = 0;
    virtual void subscribed(int id, const std::string &refusal) = 0;
    virtual void received(Message message) = 0;
    // At most once, and nothing after it. `refusal` is the broker's reason where it has refused the
    // connection, else 0.
    virtual void closed(const std::string &why, int refusal) = 0;
};

enum class SendOutcome {
    sent,    // at QoS 0 done with, else acknowledged later
    refused, // this one cannot go: too large, for one
    lost,    // the connection is gone; closed() follows
};

class BrokerLink {
  public:
    // Starts connecting. A fault is one of the configuration, as a certificate that cannot be read.
    static Result<std::unique_ptr<BrokerLink>> start(const BrokerSettings &settings,
                                                     const Credentials &credentials,
                                                     const Publication &will, BrokerEvents &events);
    virtual ~BrokerLink() = default;

    // What to poll, and for what.
    virtual int fd() const = 0;
    virtual short poll_events() const = 0;

    // Moves on; call it after poll() and about once a second.
    virtual void serve(short ready) = 0;

    // Whether a further publication would go out now instead of waiting in memory.
    virtual bool may_send() const = 0;
    virtual SendOutcome publish(const Publication &publication, int &id, std::string &refusal) = 0;
    virtual bool subscribe(const Subscription &subscription, int &id) = 0;
    virtual void unsubscribe(const std::string &filter) = 0;

    // Says goodbye, so that the broker does not publish the will.
    virtual void disconnect() = 0;
};

} // namespace kp::mqtt
