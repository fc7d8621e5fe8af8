#include "broker/broker_session.h"

#include "base/log.h"
#include "common/text/text.h"
#include "names/topic_names.h"

#include <algorithm>
#include <poll.h>

namespace kp::mqtt {

namespace {

constexpr milliseconds kAnswerTime{2000};  // for a subscription to the state topic
constexpr milliseconds kRetainedTime{300}; // for the retained state after that
constexpr milliseconds kStable{10'000};    // a connection that lasted this long was a good one
constexpr milliseconds kLeaving{1500};     // for the last message

} // namespace

BrokerSession::BrokerSession(const Configuration &configuration, std::string origin,
                             SessionEvents events, Counters &counters)
    : configuration_(configuration), events_(std::move(events)), counters_(counters),
      state_(configuration, std::move(origin)),
      backoff_(configuration.broker.reconnect_min, configuration.broker.reconnect_max),
      choice_(configuration)
{
}

BrokerEvents BrokerSession::link_events()
{
    return {
        .connected = [this] { connected(); },
        .acknowledged = [this](int id, const Answer &answer) { acknowledged(id, answer); },
        .subscribed = [this](int id, const Answer &answer) { subscribed(id, answer); },
        .received = [this](const Message &message) { received(message); },
        .closed = [this](const std::string &why, int refusal) { closed(why, refusal); },
    };
}

int BrokerSession::fd() const
{
    return link_ ? link_->fd() : -1;
}

short BrokerSession::poll_events() const
{
    return link_ ? link_->poll_events() : short{0};
}

void BrokerSession::serve(short ready)
{
    if (link_)
        link_->serve(ready);
}

bool BrokerSession::may_send() const
{
    return phase_ == Phase::online && link_->may_send();
}

SendOutcome BrokerSession::publish(const Publication &publication, int &id, std::string &refusal)
{
    return link_->publish(publication, id, refusal);
}

std::optional<Clock::time_point> BrokerSession::due() const
{
    return phase_ == Phase::online ? std::nullopt : std::optional(phase_ends_);
}

void BrokerSession::turn(Clock::time_point now)
{
    if (std::exchange(is_closed_, false))
        drop_connection(now);
    if (phase_ == Phase::online || now < phase_ends_)
        return;
    if (phase_ == Phase::waiting)
        return connect(now);
    if (phase_ == Phase::asking)
        return announce(false);
    if (phase_ == Phase::reading)
        return go_online(false);
    close_reason_ = "no answer";
    drop_connection(now);
}

void BrokerSession::connect(Clock::time_point now)
{
    names_.begin_attempt();
    phase_ = Phase::connecting;
    phase_ends_ = now + configuration_.broker.connect_timeout;
    // Read anew at each attempt, since a password may have been changed meanwhile.
    const BrokerSettings &broker = choice_.now();
    const std::string &file = broker.credentials_file;
    auto credentials = file.empty() ? tool::Result<Credentials>::of({}) : read_credentials(file);
    close_reason_ = credentials.problem;
    if (credentials) {
        const Publication will = state_message(kOffline);
        auto started = BrokerLink::start(broker, *credentials.value, &will, link_events());
        close_reason_ = started.problem;
        if (started) {
            link_ = std::move(*started.value);
            return;
        }
    }
    drop_connection(now);
}

void BrokerSession::drop_connection(Clock::time_point now)
{
    const bool was_good = phase_ == Phase::online && now - online_since_ >= kStable;
    if (was_good)
        backoff_.reset();
    end_link(now);
    if (state_.ask_for_less(std::exchange(refusal_, 0)))
        return;
    const milliseconds delay = backoff_.next();
    phase_ends_ = now + delay;
    report_failure(delay);
    choose_broker(was_good);
}

// Another broker may be able to do more.
void BrokerSession::choose_broker(bool was_good)
{
    const BrokerSettings &before = choice_.now();
    if (was_good)
        choice_.start_over();
    else
        choice_.go_on();
    if (&choice_.now() == &before)
        return;
    state_.ask_for_all();
}

void BrokerSession::end_link(Clock::time_point now)
{
    events_.lost();
    subscriptions_.connection_lost();
    const std::string topic = witness_.forget();
    if (!topic.empty() && choice_.now().session_expiry_s)
        subscriptions_.leave_behind(topic);
    link_.reset();
    phase_ = Phase::waiting;
    phase_ends_ = now;
}

void BrokerSession::renew(Clock::time_point now)
{
    backoff_ = Backoff(configuration_.broker.reconnect_min, configuration_.broker.reconnect_max);
    choice_.forget_reasons();
    if (phase_ == Phase::waiting) {
        phase_ends_ = now;
        start_over();
    }
    if (phase_ != Phase::waiting && phase_ != Phase::connecting)
        subscriptions_.change(*link_, events_.subscriptions(), phase_ == Phase::online);
    else if (choice_.now().session_expiry_s) // what the last connection has asked for stands there
        subscriptions_.leave_behind_all_but(events_.subscriptions());
}

// The first broker may be able to do more.
void BrokerSession::start_over()
{
    state_.ask_for_all();
    choice_.start_over();
}

void BrokerSession::connect_anew(Clock::time_point now)
{
    is_closed_ = false;
    refusal_ = 0;
    start_over();
    end_link(now);
    renew(now);
}

// The same reason is said once, however many attempts fail for it.
void BrokerSession::report_failure(milliseconds delay)
{
    const std::string text = "no connection to " + choice_.now().address() + ": " + close_reason_;
    log(choice_.is_news(close_reason_) ? Level::warning : Level::debug,
        text + "; trying again, next in " + std::to_string(delay.count()) + " ms");
    events_.status(text);
}

void BrokerSession::connected()
{
    if (choice_.now().session_expiry_s)
        take_up_the_session();
    events_.reading();
    subscriptions_.ask_for(*link_, events_.subscriptions());
    const bool is_first = names_.none_was_online();
    if (is_first && !subscriptions_.reads_tree())
        return announce(false);
    if (!is_first)
        ask_for_witness();
    ask_for_state();
    if (is_first)
        return announce(false);
    phase_ = Phase::asking;
    phase_ends_ = Clock::now() + kAnswerTime;
}

// What an earlier connection has asked for a short time only still stands in its session.
void BrokerSession::take_up_the_session()
{
    subscriptions_.leave_behind(configuration_.state_topic);
    subscriptions_.end_what_is_left(*link_);
    tell_of_the_session();
}

void BrokerSession::tell_of_the_session() const
{
    if (link_->session_expiry_s() < choice_.now().session_expiry_s)
        log(Level::warning, "the broker keeps commands for " +
                                std::to_string(link_->session_expiry_s()) +
                                " s only while this bridge is away");
    if (link_->has_session())
        log(Level::info, "the broker has kept the session; commands that waited come now");
    else if (names_.none_was_online())
        log(Level::info, "the broker has no session of this bridge; it keeps commands from now on");
    else
        log(Level::warning, "the broker has not kept the session; commands that were sent while "
                            "there was no connection are lost");
}

// Uses the quality of service with which the tree is read, so that the messages stay in order.
void BrokerSession::ask_for_state()
{
    const bool reads_tree = subscriptions_.reads_tree();
    (void)subscriptions_.ask_shortly(
        *link_, {configuration_.state_topic, reads_tree ? 0 : 1, true, reads_tree, 0});
}

// Before the state, so that it comes first.
void BrokerSession::ask_for_witness()
{
    witness_.forget();
    const Publication *kept = events_.last_kept();
    if (!kept)
        return;
    const auto is_of_kept = [kept](const Subscription &subscription) {
        return subscription.filter == kept->topic;
    };
    if (std::ranges::any_of(events_.subscriptions(), is_of_kept))
        return; // to cancel the subscription afterwards would end that one
    if (subscriptions_.ask_shortly(*link_, {kept->topic, 1, true}))
        witness_.ask_for(*kept);
}

void BrokerSession::subscribed(int id, const Answer &answer)
{
    const std::string filter = subscriptions_.answered(id);
    if (filter.empty())
        return;
    if (answer.is_refusal()) {
        ++counters_.refused;
        log(Level::error,
            "the broker refuses the subscription " + tool::escaped(filter) + ": " + answer.text);
    }
    if (filter == configuration_.state_topic && phase_ == Phase::asking)
        phase_ends_ = Clock::now() + kRetainedTime;
    events_.answered_for(filter, !answer.is_refusal());
}

void BrokerSession::acknowledged(int id, const Answer &answer)
{
    if (id != state_id_)
        return events_.acknowledged(id, answer);
    state_id_ = 0;
    if (!answer.is_refusal())
        return;
    ++counters_.refused;
    log(Level::error, "the broker does not take the state topic " +
                          tool::escaped(configuration_.state_topic) + ": " + answer.text +
                          "; nobody sees there whether this device is there");
}

void BrokerSession::received(const Message &message)
{
    if (message.topic == configuration_.state_topic)
        return hear_state(message);
    if (phase_ == Phase::reading)
        phase_ends_ = Clock::now() + kAnswerTime;
    if (phase_ != Phase::asking || !witness_.hears(message))
        events_.received(message);
}

void BrokerSession::hear_state(const Message &state)
{
    if (phase_ == Phase::asking)
        announce(
            names_.tells_that_all_is_kept(state, choice_.now().address(), witness_.is_there()));
    else if (phase_ == Phase::reading && state.payload == kOnline && names_.is_of_current(state))
        go_online(state_.is_retained());
}

void BrokerSession::announce(bool kept)
{
    kept_ = kept;
    if (const std::string topic = witness_.forget(); !topic.empty())
        link_->unsubscribe(topic);
    phase_ = Phase::reading;
    phase_ends_ = Clock::now() + kAnswerTime;
    send_state(kOnline);
    if (!subscriptions_.reads_tree())
        go_online(false);
}

void BrokerSession::go_online(bool has_read)
{
    const bool is_first = names_.none_was_online();
    if (!is_first)
        ++counters_.reconnects;
    const bool reads_tree = subscriptions_.reads_tree();
    if (!is_first || reads_tree)
        link_->unsubscribe(configuration_.state_topic);
    if (reads_tree)
        subscriptions_.ask_for_good(*link_);
    phase_ = Phase::online;
    online_since_ = Clock::now();
    const std::string address = choice_.now().address();
    names_.went_online(address);
    choice_.forget_reasons();
    events_.online(kept_, has_read);
    subscriptions_.ask_at_last(*link_);
    const std::string text = "connected to " + address;
    log(Level::info, text + (kept_ ? "; the broker has kept what it had" : "; sending everything"));
    events_.status(text);
}

Publication BrokerSession::state_message(const char *text) const
{
    return state_.with(text, names_.current(), choice_.now().address());
}

void BrokerSession::send_state(const char *text)
{
    int id = 0;
    std::string refusal;
    const auto outcome = link_->publish(state_message(text), id, refusal);
    if (outcome == SendOutcome::refused)
        log(Level::error, "the state cannot be sent: " + refusal);
    state_id_ = outcome == SendOutcome::sent ? id : 0;
}

// Only noted here: the link must not be destroyed within its own call.
void BrokerSession::closed(const std::string &why, int refusal)
{
    is_closed_ = true;
    close_reason_ = why;
    refusal_ = refusal;
}

// What still waits is sent after the next start.
void BrokerSession::leave()
{
    if (phase_ != Phase::online)
        return;
    const auto deadline = Clock::now() + kLeaving;
    send_state(kOffline);
    while (state_id_ && !is_closed_ && Clock::now() < deadline) {
        pollfd broker = {link_->fd(), link_->poll_events(), 0};
        (void)poll(&broker, 1, 50);
        link_->serve(broker.revents);
    }
    if (!is_closed_)
        link_->disconnect();
}

} // namespace kp::mqtt
