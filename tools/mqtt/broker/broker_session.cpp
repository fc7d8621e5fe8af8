// The part of Bridge that connects, finds out what the broker has kept, and notices the end.
#include "bridge.h"

#include "log.h"
#include "names/topic_names.h"

#include <algorithm>
#include <cstdlib>
#include <random>

namespace kp::mqtt {

namespace {

constexpr milliseconds kAnswerTime{2000};  // for a subscription to the state topic
constexpr milliseconds kRetainedTime{300}; // for the retained state after that
constexpr milliseconds kStable{10'000};    // a connection that lasted this long was a good one
constexpr const char *kConnection = "connection";

std::string random_name()
{
    std::random_device random;
    return std::to_string(random()) + std::to_string(random());
}

std::string property_of(const UserProperties &properties, const std::string &name)
{
    for (const auto &[known, value] : properties)
        if (known == name)
            return value;
    return {};
}

uint64_t write_time_of(const UserProperties &properties)
{
    return std::strtoull(property_of(properties, property::kWriteTime).c_str(), nullptr, 10);
}

// Whether what the broker keeps is this value or a later one of the same device, which can have
// arrived without an acknowledgement.
bool is_as_new_as(const Message &message, const Publication &sent)
{
    if (message.topic != sent.topic || property_of(message.properties, property::kOrigin) !=
                                           property_of(sent.properties, property::kOrigin))
        return false;
    return write_time_of(message.properties) > write_time_of(sent.properties) ||
           (message.payload == sent.payload && message.properties == sent.properties);
}

} // namespace

void Bridge::keep_connection(Clock::time_point now)
{
    if (phase_ == Phase::online || now < phase_ends_)
        return;
    if (phase_ == Phase::waiting)
        return connect(now);
    if (phase_ == Phase::asking)
        return go_online(false);
    close_reason_ = "no answer";
    drop_connection(now);
}

void Bridge::connect(Clock::time_point now)
{
    if (connection_ == last_connection_)
        connection_ = random_name();
    auto started =
        BrokerLink::start(configuration_.broker, credentials_, state_message("offline"), *this);
    phase_ = Phase::connecting;
    phase_ends_ = now + configuration_.broker.connect_timeout;
    if (started) {
        link_ = std::move(*started.value);
        return;
    }
    close_reason_ = started.fault;
    drop_connection(now);
}

void Bridge::drop_connection(Clock::time_point now)
{
    if (phase_ == Phase::online && now - online_since_ >= kStable)
        backoff_.reset();
    outbound_.connection_lost(now);
    subscribing_.clear();
    link_.reset();
    more_to_send_ = false;
    phase_ = Phase::waiting;
    phase_ends_ = now;
    if (asked_too_much(std::exchange(refusal_, 0)))
        return;
    const milliseconds delay = backoff_.next();
    phase_ends_ = now + delay;
    const std::string text = "no connection to " + configuration_.broker.host + ":" +
                             std::to_string(configuration_.broker.port) + ": " + close_reason_;
    log(text == reported_ ? Level::debug : Level::warning,
        text + "; trying again, next in " + std::to_string(delay.count()) + " ms");
    reported_ = text;
    manager_.status(text);
}

// A broker refuses a will that it cannot carry instead of taking it as it can. Says whether the next
// attempt asks for less.
bool Bridge::asked_too_much(int refusal)
{
    if (refusal == kQosNotSupported && state_qos_ > 0) {
        state_qos_ = 0;
        log(Level::warning, "the broker has no QoS 1; messages and the will go at QoS 0");
        return true;
    }
    if (refusal == kRetainNotSupported && state_retained_) {
        state_retained_ = false;
        log(Level::warning, "the broker keeps no messages; who subscribes later sees no value, nor "
                            "whether this device is there, until the next message");
        return true;
    }
    return false;
}

void Bridge::connected()
{
    subscribe_all();
    if (last_connection_.empty())
        return go_online(false);
    phase_ = Phase::asking;
    phase_ends_ = Clock::now() + kAnswerTime;
    ask_for_witness();
    int id = 0;
    if (link_->subscribe({configuration_.state_topic, 1, true}, id))
        subscribing_[id] = configuration_.state_topic;
}

bool Bridge::is_subscribed(const std::string &filter) const
{
    const auto subscriptions = inbound_.subscriptions();
    return std::any_of(
        subscriptions.begin(), subscriptions.end(),
        [&filter](const Subscription &subscription) { return subscription.filter == filter; });
}

// Before the state, so that it comes first.
void Bridge::ask_for_witness()
{
    witness_.reset();
    has_witness_ = false;
    const Publication *kept = outbound_.last_kept();
    if (!kept || is_subscribed(kept->topic))
        return; // cancelling the subscription would end that one
    int id = 0;
    if (!link_->subscribe({kept->topic, 1, true}, id))
        return;
    witness_ = *kept;
    subscribing_[id] = kept->topic;
}

void Bridge::subscribe_all()
{
    for (const Subscription &subscription : inbound_.subscriptions()) {
        int id = 0;
        if (link_->subscribe(subscription, id))
            subscribing_[id] = subscription.filter;
        else
            log(Level::error, "the filter cannot be subscribed: " + printable(subscription.filter));
    }
}

void Bridge::subscribed(int id, const std::string &refusal)
{
    const auto found = subscribing_.find(id);
    if (found == subscribing_.end())
        return;
    if (!refusal.empty()) {
        ++counters_.refused;
        log(Level::error, "the broker refuses the subscription " + found->second + ": " + refusal);
    }
    if (found->second == configuration_.state_topic && phase_ == Phase::asking)
        phase_ends_ = Clock::now() + kRetainedTime;
    subscribing_.erase(found);
}

void Bridge::received(Message message)
{
    if (message.topic == configuration_.state_topic) {
        if (phase_ == Phase::asking)
            go_online(tells_that_all_is_kept(message));
        return;
    }
    if (phase_ == Phase::asking && witness_ && is_as_new_as(message, *witness_))
        has_witness_ = true;
    else
        inbound_.receive(message);
}

// The will of the last connection tells it alone. One of an attempt since then may have taken its
// place, as at a broker that was stopped meanwhile, but also at one that was started anew and gave an
// answer too late; so that takes a witness.
bool Bridge::tells_that_all_is_kept(const Message &state) const
{
    if (state.payload != "offline")
        return false;
    const std::string connection = property_of(state.properties, kConnection);
    return connection == last_connection_ || (connection == connection_ && has_witness_);
}

void Bridge::go_online(bool kept)
{
    if (!last_connection_.empty())
        link_->unsubscribe(configuration_.state_topic);
    if (witness_)
        link_->unsubscribe(std::exchange(witness_, {})->topic);
    phase_ = Phase::online;
    online_since_ = Clock::now();
    if (std::exchange(was_online_, true))
        ++counters_.reconnects;
    last_connection_ = connection_;
    reported_.clear();
    send_state("online", false);
    look_at_marks(online_since_); // what changed before it waits with the rest
    outbound_.connected(kept, online_since_);
    const std::string text = "connected to " + configuration_.broker.host + ":" +
                             std::to_string(configuration_.broker.port);
    log(Level::info, text + (kept ? "; the broker has kept what it had" : "; sending everything"));
    manager_.status(text);
}

Publication Bridge::state_message(const char *text) const
{
    Publication state;
    state.topic = configuration_.state_topic;
    state.payload = text;
    state.qos = state_qos_;
    state.retain = state_retained_;
    state.content_type = "text/plain";
    state.is_utf8 = true;
    state.properties = {{property::kOrigin, origin_}, {kConnection, connection_}};
    return state;
}

void Bridge::send_state(const char *text, bool wait_for_it)
{
    int id = 0;
    std::string refusal;
    const auto outcome = link_->publish(state_message(text), id, refusal);
    if (outcome == SendOutcome::refused)
        log(Level::error, "the state cannot be sent: " + refusal);
    state_id_ = wait_for_it && outcome == SendOutcome::sent ? id : 0;
}

// Only noted here: the link must not be destroyed within its own call.
void Bridge::closed(const std::string &why, int refusal)
{
    is_closed_ = true;
    close_reason_ = why;
    refusal_ = refusal;
}

} // namespace kp::mqtt
