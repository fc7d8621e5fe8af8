#include "broker/broker_link.h"

#include "layout/unique_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unordered_set>

namespace kp::mqtt {

namespace {

constexpr size_t kMostUnacknowledged = 1000;

// The broker keeps back what is larger. Beside the payload there is room for the longest topic and for
// properties.
constexpr uint32_t kMostPacketBytes = kMostPayloadBytes + 88 * 1024;

class Properties {
  public:
    Properties() = default;
    Properties(const Properties &) = delete;
    Properties &operator=(const Properties &) = delete;
    ~Properties()
    {
        mosquitto_property_free_all(&list_);
    }

    void describe(const Publication &publication)
    {
        if (publication.content_type)
            add(mosquitto_property_add_string(&list_, MQTT_PROP_CONTENT_TYPE,
                                              publication.content_type));
        if (publication.is_utf8)
            add(mosquitto_property_add_byte(&list_, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1));
        if (publication.expiry_s)
            add(mosquitto_property_add_int32(&list_, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                             publication.expiry_s));
        for (const auto &[name, value] : publication.properties)
            add(mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                                   value.c_str()));
    }
    bool complete() const
    {
        return complete_;
    }
    mosquitto_property *get()
    {
        return list_;
    }
    // For after a call that has taken the list over.
    void let_go()
    {
        list_ = nullptr;
    }

  private:
    void add(int result)
    {
        complete_ = complete_ && result == MOSQ_ERR_SUCCESS;
    }

    mosquitto_property *list_ = nullptr;
    bool complete_ = true;
};

UserProperties user_properties(const mosquitto_property *list)
{
    UserProperties found;
    char *name = nullptr;
    char *value = nullptr;
    bool again = false;
    while ((list = mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &name, &value,
                                                       again))) {
        found.emplace_back(name ? name : "", value ? value : "");
        std::free(name);
        std::free(value);
        again = true;
    }
    return found;
}

// The library has no text of its own for a broker that was silent for too long.
std::string error_text(int error)
{
    return error == MOSQ_ERR_KEEPALIVE ? "the broker did not answer" : mosquitto_strerror(error);
}

// Shared with the thread that connects, which outlives the link when a name server does not answer.
struct Attempt {
    Attempt() : done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
    }
    Attempt(const Attempt &) = delete;
    Attempt &operator=(const Attempt &) = delete;
    ~Attempt()
    {
        mosquitto_destroy(client);
    }

    mosquitto *client = nullptr;
    UniqueFd done;
    std::atomic<bool> is_done = false;
    int result = MOSQ_ERR_SUCCESS;
    int error = 0;
};

void connect_to_broker(const std::shared_ptr<Attempt> &attempt, const std::string &host, int port,
                       int keep_alive_s)
{
    mosquitto_property *limits = nullptr;
    (void)mosquitto_property_add_int32(&limits, MQTT_PROP_MAXIMUM_PACKET_SIZE, kMostPacketBytes);
    attempt->result = mosquitto_connect_bind_v5(attempt->client, host.c_str(), port, keep_alive_s,
                                                nullptr, limits);
    attempt->error = errno;
    mosquitto_property_free_all(&limits);
    attempt->is_done = true;
    const uint64_t one = 1;
    (void)!write(attempt->done.get(), &one, sizeof one);
}

class Link final : public BrokerLink {
  public:
    explicit Link(BrokerEvents &events) : events_(events), attempt_(std::make_shared<Attempt>())
    {
    }

    std::string prepare(const BrokerSettings &settings, const Credentials &credentials,
                        const Publication &will);
    void connect(const BrokerSettings &settings);

    int fd() const override;
    short poll_events() const override;
    void serve(short ready) override;
    bool may_send() const override;
    SendOutcome publish(const Publication &publication, int &id, std::string &refusal) override;
    bool subscribe(const Subscription &subscription, int &id) override;
    void unsubscribe(const std::string &filter) override;
    void disconnect() override;

  private:
    std::string end_text(int error) const;
    std::string set_will(const Publication &will);
    std::string set_tls(const TlsSettings &tls);
    void set_callbacks();
    void on_connect(int reason, const mosquitto_property *list);
    void on_publish(int id, int reason);
    void on_subscribe(int id, int count, const int *granted);
    void on_message(const mosquitto_message &message, const mosquitto_property *list);
    void close(const std::string &why, int refusal = 0);
    static Link &self(void *object)
    {
        return *static_cast<Link *>(object);
    }

    BrokerEvents &events_;
    std::shared_ptr<Attempt> attempt_;
    mosquitto *client_ = nullptr; // of the attempt
    bool online_ = false;
    bool was_online_ = false;
    bool closed_ = false;
    size_t most_unacknowledged_ = kMostUnacknowledged;
    std::unordered_set<int> unacknowledged_; // publications at QoS 1 and 2
    int most_qos_ = 2;
    bool retains_ = true;
};

std::string Link::prepare(const BrokerSettings &settings, const Credentials &credentials,
                          const Publication &will)
{
    client_ = attempt_->client = mosquitto_new(settings.client_id.c_str(), true, this);
    if (!client_)
        return std::strerror(errno);
    (void)mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    (void)mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
    set_callbacks();
    if (!credentials.user.empty() &&
        mosquitto_username_pw_set(client_, credentials.user.c_str(),
                                  credentials.password.c_str()) != MOSQ_ERR_SUCCESS)
        return "the credentials cannot be used";
    if (settings.tls)
        if (std::string fault = set_tls(*settings.tls); !fault.empty())
            return fault;
    return set_will(will);
}

std::string Link::set_will(const Publication &will)
{
    Properties properties;
    properties.describe(will);
    const int result =
        mosquitto_will_set_v5(client_, will.topic.c_str(), static_cast<int>(will.payload.size()),
                              will.payload.data(), will.qos, will.retain, properties.get());
    if (result != MOSQ_ERR_SUCCESS)
        return std::string("the will cannot be set: ") + mosquitto_strerror(result);
    properties.let_go();
    return {};
}

std::string Link::set_tls(const TlsSettings &tls)
{
    const auto given = [](const std::string &text) {
        return text.empty() ? nullptr : text.c_str();
    };
    const int result = mosquitto_tls_set(client_, given(tls.ca_file), given(tls.ca_path),
                                         given(tls.cert_file), given(tls.key_file), nullptr);
    return result == MOSQ_ERR_SUCCESS ? "" : std::string("tls: ") + mosquitto_strerror(result);
}

void Link::set_callbacks()
{
    mosquitto_connect_v5_callback_set(
        client_, [](mosquitto *, void *object, int reason, int, const mosquitto_property *list) {
            self(object).on_connect(reason, list);
        });
    mosquitto_disconnect_v5_callback_set(
        client_, [](mosquitto *, void *object, int reason, const mosquitto_property *) {
            self(object).close(reason >= kFirstRefusal ? mosquitto_reason_string(reason)
                                                       : self(object).end_text(reason));
        });
    mosquitto_publish_v5_callback_set(
        client_, [](mosquitto *, void *object, int id, int reason, const mosquitto_property *) {
            self(object).on_publish(id, reason);
        });
    mosquitto_subscribe_v5_callback_set(
        client_, [](mosquitto *, void *object, int id, int count, const int *granted,
                    const mosquitto_property *) { self(object).on_subscribe(id, count, granted); });
    mosquitto_message_v5_callback_set(
        client_, [](mosquitto *, void *object, const mosquitto_message *message,
                    const mosquitto_property *list) { self(object).on_message(*message, list); });
}

void Link::connect(const BrokerSettings &settings)
{
    std::thread(connect_to_broker, attempt_, settings.host, settings.port, settings.keep_alive_s)
        .detach();
}

int Link::fd() const
{
    return attempt_->is_done && client_ ? mosquitto_socket(client_) : attempt_->done.get();
}

short Link::poll_events() const
{
    const bool writes = attempt_->is_done && mosquitto_want_write(client_);
    return static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
}

void Link::serve(short ready)
{
    if (closed_ || !attempt_->is_done)
        return;
    if (attempt_->result != MOSQ_ERR_SUCCESS)
        return close(attempt_->result == MOSQ_ERR_ERRNO ? std::strerror(attempt_->error)
                                                        : mosquitto_strerror(attempt_->result));
    int result = MOSQ_ERR_SUCCESS;
    if (ready & (POLLIN | POLLHUP | POLLERR))
        result = mosquitto_loop_read(client_, 1);
    if (result == MOSQ_ERR_SUCCESS && !closed_ && mosquitto_want_write(client_))
        result = mosquitto_loop_write(client_, 1);
    if (result == MOSQ_ERR_SUCCESS && !closed_)
        result = mosquitto_loop_misc(client_);
    if (result != MOSQ_ERR_SUCCESS)
        close(end_text(result));
}

// A broker that takes only smaller packets than the first says nothing but goes.
std::string Link::end_text(int error) const
{
    const std::string text = error_text(error);
    if (was_online_ || error != MOSQ_ERR_CONN_LOST)
        return text;
    return text +
           " The broker said nothing, as one does whose maximum packet size is too small for "
           "the state message";
}

void Link::on_connect(int reason, const mosquitto_property *list)
{
    if (reason != MQTT_RC_SUCCESS)
        return close(std::string("the broker refuses the connection: ") +
                         mosquitto_reason_string(reason),
                     reason);
    uint16_t receive_maximum = 0;
    if (mosquitto_property_read_int16(list, MQTT_PROP_RECEIVE_MAXIMUM, &receive_maximum, false))
        most_unacknowledged_ = std::min<size_t>(receive_maximum, kMostUnacknowledged);
    uint8_t limit = 0;
    if (mosquitto_property_read_byte(list, MQTT_PROP_MAXIMUM_QOS, &limit, false))
        most_qos_ = limit;
    if (mosquitto_property_read_byte(list, MQTT_PROP_RETAIN_AVAILABLE, &limit, false))
        retains_ = limit != 0;
    online_ = was_online_ = true;
    events_.connected();
}

void Link::on_publish(int id, int reason)
{
    if (unacknowledged_.erase(id) == 0)
        return; // of QoS 0, which is done with when it is sent
    events_.acknowledged(id, reason);
}

void Link::on_subscribe(int id, int count, const int *granted)
{
    const bool refused = count < 1 || granted[0] >= kFirstRefusal;
    events_.subscribed(id, !refused    ? ""
                           : count < 1 ? "no answer"
                                       : mosquitto_reason_string(granted[0]));
}

void Link::on_message(const mosquitto_message &message, const mosquitto_property *list)
{
    events_.received({message.topic,
                      std::string(static_cast<const char *>(message.payload),
                                  static_cast<size_t>(message.payloadlen)),
                      message.retain, user_properties(list)});
}

void Link::close(const std::string &why, int refusal)
{
    if (std::exchange(closed_, true))
        return;
    online_ = false;
    events_.closed(why, refusal);
}

bool Link::may_send() const
{
    return online_ && !closed_ && !mosquitto_want_write(client_) &&
           unacknowledged_.size() < most_unacknowledged_;
}

SendOutcome Link::publish(const Publication &publication, int &id, std::string &refusal)
{
    Properties properties;
    properties.describe(publication);
    if (!properties.complete()) {
        refusal = "out of memory, or a property that is not UTF-8";
        return SendOutcome::refused;
    }
    const int qos = std::min(publication.qos, most_qos_);
    const int result = mosquitto_publish_v5(
        client_, &id, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
        publication.payload.data(), qos, publication.retain && retains_, properties.get());
    if (result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO)
        return SendOutcome::lost;
    if (result != MOSQ_ERR_SUCCESS) {
        refusal = mosquitto_strerror(result);
        return SendOutcome::refused;
    }
    if (qos > 0)
        unacknowledged_.insert(id);
    else
        id = 0;
    return SendOutcome::sent;
}

bool Link::subscribe(const Subscription &subscription, int &id)
{
    const int retained =
        subscription.retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    return mosquitto_subscribe_v5(client_, &id, subscription.filter.c_str(), subscription.qos,
                                  MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED |
                                      retained,
                                  nullptr) == MOSQ_ERR_SUCCESS;
}

void Link::unsubscribe(const std::string &filter)
{
    (void)mosquitto_unsubscribe(client_, nullptr, filter.c_str());
}

void Link::disconnect()
{
    if (online_)
        (void)mosquitto_disconnect_v5(client_, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    online_ = false;
}

} // namespace

std::string reason_text(int reason)
{
    return mosquitto_reason_string(reason);
}

Result<std::unique_ptr<BrokerLink>> BrokerLink::start(const BrokerSettings &settings,
                                                      const Credentials &credentials,
                                                      const Publication &will, BrokerEvents &events)
{
    using Started = Result<std::unique_ptr<BrokerLink>>;
    auto link = std::make_unique<Link>(events);
    if (std::string fault = link->prepare(settings, credentials, will); !fault.empty())
        return Started::failed(std::move(fault));
    link->connect(settings);
    return Started::of(std::move(link));
}

} // namespace kp::mqtt
