#include "link/broker_link.h"

#include "messages/payload.h"
#include "messages/property_list.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>

namespace kp::mqtt {

namespace {

constexpr size_t kMostUnacknowledged = 1000;
constexpr int kSessionPresent = 1; // a flag of the broker's answer

// Beside the payload there is room for the longest topic and for properties.
constexpr uint32_t kMostPacketBytes = kMostPayloadBytes + size_t{88} * 1024;

// The library has no text of its own for a broker that was silent for too long.
std::string error_text(int error)
{
    return error == MOSQ_ERR_KEEPALIVE ? "the broker did not answer" : mosquitto_strerror(error);
}

std::string too_large_text()
{
    return "the broker sends a packet of more than " +
           std::to_string(kMostToleratedBytes / 1024 / 1024) +
           " MiB, and was told not to send any of more than " +
           std::to_string(kMostPacketBytes / 1024) + " KiB";
}

BrokerLink &self(void *object)
{
    return *static_cast<BrokerLink *>(object);
}

} // namespace

tool::Result<std::unique_ptr<BrokerLink>> BrokerLink::start(const BrokerSettings &settings,
                                                            const Credentials &credentials,
                                                            const Publication *will,
                                                            BrokerEvents events)
{
    using Started = tool::Result<std::unique_ptr<BrokerLink>>;
    std::unique_ptr<BrokerLink> link(new BrokerLink(settings, std::move(events)));
    if (std::string problem = link->prepare(settings, credentials, will); !problem.empty())
        return Started::failed(std::move(problem));
    start_connecting(link->attempt_, {settings.host, settings.port, settings.keep_alive_s,
                                      kMostPacketBytes, settings.session_expiry_s});
    return Started::of(std::move(link));
}

BrokerLink::BrokerLink(const BrokerSettings &settings, BrokerEvents events)
    : events_(std::move(events)), attempt_(std::make_shared<Attempt>()),
      most_unacknowledged_(kMostUnacknowledged), watch_(settings.keep_alive_s),
      session_expiry_s_(settings.session_expiry_s)
{
}

std::string BrokerLink::prepare(const BrokerSettings &settings, const Credentials &credentials,
                                const Publication *will)
{
    client_ = attempt_->client =
        mosquitto_new(settings.client_id.c_str(), settings.session_expiry_s == 0, this);
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
        if (std::string problem = set_tls(*settings.tls, settings.host); !problem.empty())
            return problem;
    return will ? set_will(*will) : "";
}

std::string BrokerLink::set_will(const Publication &will)
{
    PropertyList properties;
    properties.describe(will);
    const int result =
        mosquitto_will_set_v5(client_, will.topic.c_str(), static_cast<int>(will.payload.size()),
                              will.payload.data(), will.qos, will.retain, properties.get());
    if (result != MOSQ_ERR_SUCCESS)
        return std::string("the will cannot be set: ") + mosquitto_strerror(result);
    properties.let_go();
    return {};
}

std::string BrokerLink::set_tls(const TlsSettings &tls, const std::string &host)
{
    const auto problems = content_problems(tls.ca_file, tls.cert_file, tls.key_file);
    if (!problems.empty())
        return "TLS: " + problems[0];
    attempt_->handshake = std::make_unique<Handshake>(host, !tls.cert_file.empty());
    (void)mosquitto_void_option(client_, MOSQ_OPT_SSL_CTX, attempt_->handshake->context());
    (void)mosquitto_int_option(client_, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 1);
    const auto given = [](const std::string &text) {
        return text.empty() ? nullptr : text.c_str();
    };
    const int result = mosquitto_tls_set(client_, given(tls.ca_file), given(tls.ca_path),
                                         given(tls.cert_file), given(tls.key_file), nullptr);
    return result == MOSQ_ERR_SUCCESS ? "" : std::string("TLS: ") + mosquitto_strerror(result);
}

void BrokerLink::set_callbacks()
{
    mosquitto_connect_v5_callback_set(client_, [](mosquitto *, void *object, int reason, int flags,
                                                  const mosquitto_property *list) {
        self(object).on_connect(reason, flags, list);
    });
    mosquitto_disconnect_v5_callback_set(
        client_, [](mosquitto *, void *object, int reason, const mosquitto_property *list) {
            const Answer answer = answer_of(reason, list);
            self(object).close(answer.is_refusal() ? answer.text : self(object).end_text(reason));
        });
    mosquitto_publish_v5_callback_set(
        client_, [](mosquitto *, void *object, int id, int reason, const mosquitto_property *list) {
            self(object).has_heard_ = true;
            self(object).on_publish(id, answer_of(reason, list));
        });
    mosquitto_subscribe_v5_callback_set(client_, [](mosquitto *, void *object, int id, int count,
                                                    const int *granted,
                                                    const mosquitto_property *list) {
        constexpr int unspecified = MQTT_RC_UNSPECIFIED;
        self(object).has_heard_ = true;
        self(object).events_.subscribed(id, answer_of(count < 1 ? unspecified : granted[0], list));
    });
    mosquitto_unsubscribe_callback_set(
        client_, [](mosquitto *, void *object, int) { self(object).has_heard_ = true; });
    mosquitto_message_v5_callback_set(
        client_, [](mosquitto *, void *object, const mosquitto_message *message,
                    const mosquitto_property *list) { self(object).on_message(*message, list); });
}

int BrokerLink::fd() const
{
    return attempt_->is_done && client_ ? mosquitto_socket(client_) : attempt_->done.get();
}

short BrokerLink::poll_events() const
{
    const bool writes = attempt_->is_done && mosquitto_want_write(client_);
    return static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
}

void BrokerLink::serve(short ready)
{
    if (is_closed_ || !attempt_->is_done)
        return;
    errno = attempt_->error; // for the text of a failed system call
    if (attempt_->result != MOSQ_ERR_SUCCESS)
        return close(end_text(attempt_->result));
    int result = MOSQ_ERR_SUCCESS;
    if (ready & (POLLIN | POLLHUP | POLLERR))
        result = read();
    if (result == MOSQ_ERR_SUCCESS && !is_closed_ && mosquitto_want_write(client_))
        result = mosquitto_loop_write(client_, 1);
    if (result == MOSQ_ERR_SUCCESS && !is_closed_)
        result = mosquitto_loop_misc(client_);
    if (result != MOSQ_ERR_SUCCESS)
        close(end_text(result));
}

// One packet, or what has arrived of it.
int BrokerLink::read()
{
    has_heard_ = false;
    const int result = mosquitto_loop_read(client_, 1);
    if (result == MOSQ_ERR_SUCCESS && !is_closed_ &&
        watch_.is_too_large(mosquitto_socket(client_), has_heard_, Clock::now()))
        close(too_large_text());
    return result;
}

// A broker that takes only packets smaller than the first one closes the connection without a
// reason.
std::string BrokerLink::end_text(int error) const
{
    const bool is_reset = error == MOSQ_ERR_ERRNO && (errno == ECONNRESET || errno == EPIPE);
    std::string text = error_text(error);
    if (was_online_)
        return text;
    if (std::string problem = attempt_->handshake ? attempt_->handshake->problem() : "";
        !problem.empty())
        return problem;
    const std::string for_tls = attempt_->handshake ? "" : "port is for TLS; see [broker.tls]";
    if (is_reset || error == MOSQ_ERR_CONN_LOST)
        return text + (is_reset ? "." : "") +
               " The broker said nothing, as one does whose maximum packet size is too small for "
               "the state message" +
               (for_tls.empty() ? "" : ", or whose " + for_tls);
    const bool may_be_tls = error == MOSQ_ERR_PROTOCOL && !for_tls.empty();
    return text + (may_be_tls ? " Maybe its " + for_tls : "");
}

std::string BrokerLink::protection() const
{
    auto *connection = static_cast<SSL *>(mosquitto_ssl_get(client_));
    return connection ? mqtt::protection(connection) : "";
}

void BrokerLink::on_connect(int reason, int flags, const mosquitto_property *list)
{
    has_heard_ = true;
    if (reason != MQTT_RC_SUCCESS)
        return close("the broker refuses the connection: " + answer_of(reason, list).text, reason);
    learn_limits(list);
    has_session_ = (flags & kSessionPresent) != 0;
    is_online_ = was_online_ = true;
    events_.connected();
}

void BrokerLink::learn_limits(const mosquitto_property *list)
{
    uint16_t receive_maximum = 0;
    if (mosquitto_property_read_int16(list, MQTT_PROP_RECEIVE_MAXIMUM, &receive_maximum, false))
        most_unacknowledged_ = std::min<size_t>(receive_maximum, kMostUnacknowledged);
    uint8_t limit = 0;
    if (mosquitto_property_read_byte(list, MQTT_PROP_MAXIMUM_QOS, &limit, false))
        most_qos_ = limit;
    if (mosquitto_property_read_byte(list, MQTT_PROP_RETAIN_AVAILABLE, &limit, false))
        broker_retains_ = limit != 0;
    if (mosquitto_property_read_byte(list, MQTT_PROP_SUBSCRIPTION_ID_AVAILABLE, &limit, false))
        broker_numbers_ = limit != 0;
    (void)mosquitto_property_read_int32(list, MQTT_PROP_SESSION_EXPIRY_INTERVAL, &session_expiry_s_,
                                        false);
}

void BrokerLink::on_publish(int id, const Answer &answer)
{
    if (unacknowledged_.erase(id) > 0) // one of QoS 0 was done with when it was sent
        events_.acknowledged(id, answer);
}

void BrokerLink::on_message(const mosquitto_message &message, const mosquitto_property *list)
{
    has_heard_ = true;
    const auto size = static_cast<size_t>(message.payloadlen);
    if (size > kMostToleratedBytes)
        return close(too_large_text()); // it came so fast that there was no pause to notice it in
    const bool is_too_large = size > kMostPayloadBytes;
    events_.received(
        {message.topic,
         std::string(static_cast<const char *>(message.payload), is_too_large ? 0 : size),
         message.retain, user_properties(list), subscriptions(list), response_topic(list),
         correlation(list), is_too_large ? size : 0});
}

void BrokerLink::close(const std::string &why, int refusal)
{
    if (std::exchange(is_closed_, true))
        return;
    is_online_ = false;
    events_.closed(why, refusal);
}

bool BrokerLink::may_send() const
{
    return is_online_ && !is_closed_ && !mosquitto_want_write(client_) &&
           unacknowledged_.size() < most_unacknowledged_;
}

SendOutcome BrokerLink::publish(const Publication &publication, int &id, std::string &refusal)
{
    PropertyList properties;
    properties.describe(publication);
    if (!properties.is_complete()) {
        refusal = "out of memory, or a property that is not UTF-8";
        return SendOutcome::refused;
    }
    const int qos = std::min(publication.qos, most_qos_);
    const int result = mosquitto_publish_v5(
        client_, &id, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
        publication.payload.data(), qos, publication.retain && broker_retains_, properties.get());
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

bool BrokerLink::subscribe(const Subscription &subscription, int &id)
{
    int options = MQTT_SUB_OPT_RETAIN_AS_PUBLISHED;
    options |=
        subscription.retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    if (!subscription.own_too)
        options |= MQTT_SUB_OPT_NO_LOCAL;
    PropertyList properties;
    if (subscription.number && broker_numbers_)
        properties.add_subscription(subscription.number);
    return mosquitto_subscribe_v5(client_, &id, subscription.filter.c_str(), subscription.qos,
                                  options, properties.get()) == MOSQ_ERR_SUCCESS;
}

void BrokerLink::unsubscribe(const std::string &filter)
{
    (void)mosquitto_unsubscribe(client_, nullptr, filter.c_str());
}

void BrokerLink::disconnect()
{
    if (is_online_)
        (void)mosquitto_disconnect_v5(client_, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    is_online_ = false;
}

} // namespace kp::mqtt
