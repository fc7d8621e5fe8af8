#include "bridge.h"

#include "base/log.h"
#include "common/system/signals.h"
#include "config/configuration_change.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <poll.h>

namespace kp::mqtt {

namespace {

constexpr milliseconds kTick{1000};
constexpr milliseconds kStuck{10'000}; // for a round of local writes
constexpr int kMostAtOnce = 200;       // publications between two looks at everything else

} // namespace

std::string make_origin(const std::string &device)
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string boot;
    (void)std::getline(file, boot);
    return device + '/' + boot;
}

Bridge::Bridge(Configuration configuration, StateFile &state, tool::NoticeMarks &marks,
               LocalWriter &writer, Counters &counters, uint64_t last_alive)
    : configuration_(std::move(configuration)), state_(state), writer_(writer), counters_(counters),
      origin_(make_origin(configuration_.device)),
      dictionary_(tool::dictionary_place(configuration_.dictionary)),
      topics_(configuration_, reader_, state, pending_),
      shared_(configuration_, reader_, &writer, state, pending_, topics_, last_alive),
      publications_(configuration_, reader_, &writer, state, origin_, pending_, topics_, shared_,
                    counters),
      answers_(Answers::make(origin_, counters)),
      inbound_(configuration_, reader_, shared_, inbound_events(), counters),
      changes_(configuration_, marks, topics_),
      session_(configuration_, origin_, session_events(), counters),
      unheard_(configuration_.endpoint), status_(configuration_.status_prefix, writer)
{
    use_dictionary(Clock::now());
}

InboundEvents Bridge::inbound_events()
{
    return {
        .put = [this](const std::string &tag,
                      WriteRequest request) { writer_.put(tag, std::move(request)); },
        .drop =
            [this](const std::string &name, bool left_over) {
                const std::string tag = reader_.standing_for(name);
                writer_.drop(name, left_over);
                publications_.repeat(tag, Clock::now()); // where it lives on the broker gets it
            },
        .cleared =
            [this](const std::string &tag) {
                writer_.forget(tag);
                publications_.repeat(tag, Clock::now());
            },
        .set_quality = [this](const std::string &tag,
                              uint8_t quality) { writer_.set_quality(tag, quality); },
        .is_dropping = [this](const std::string &tag) { return writer_.is_dropping(tag); },
        .is_left = [this](const std::string &name) { return writer_.is_left(name); },
        .listeners_for =
            [this](const Message &message, const InRule &rule) {
                return answers_->listeners_for(message, rule);
            },
    };
}

SessionEvents Bridge::session_events()
{
    return {
        .subscriptions = [this] { return inbound_.subscriptions(); },
        .last_kept = [this] { return publications_.last_kept(); },
        .reading =
            [this] {
                shared_.start_reading();
                inbound_.set_connected(true);
            },
        .online = [this](bool kept, bool has_read) { go_online(kept, has_read); },
        .lost =
            [this] {
                publications_.connection_lost(Clock::now());
                answers_->connection_lost();
                inbound_.set_connected(false);
            },
        .acknowledged =
            [this](int id, const Answer &answer) {
                if (!answers_->acknowledged(id, answer))
                    publications_.acknowledged(id, answer, Clock::now());
            },
        .received = [this](const Message &message) { inbound_.receive(message); },
        .answered_for = [this](const std::string &filter,
                               bool is_made) { inbound_.answered_for(filter, is_made); },
        .status = [this](const std::string &text) { manager_.status(text); },
    };
}

std::optional<Configuration> Bridge::run(const tool::Signals &signals,
                                         const std::function<ConfigurationResult()> &load)
{
    look_for_changes(Clock::now());
    manager_.ready();
    bool stop = false;
    while (!stop) {
        const tool::Order order = wait(signals.fd()) ? signals.next() : tool::Order::none;
        if (order == tool::Order::reload)
            reload(load(), Clock::now());
        turn(Clock::now());
        stop = order == tool::Order::leave || successor_;
    }
    if (!successor_)
        manager_.stopping();
    session_.leave();
    show_status(Clock::now(), false); // for who has these tags open, and sees them longer
    return std::move(successor_);
}

void Bridge::leave_behind()
{
    if (!has_been_online_)
        return;
    const uint64_t now = kp_get_timestamp_us();
    topics_.scan(Clock::now());
    shared_.claim_unsent();
    state_.leave(now);
}

void Bridge::reload(ConfigurationResult loaded, Clock::time_point now)
{
    manager_.reloading();
    if (dictionary_.look_now())
        take_over_dictionary(now);
    for (const std::string &problem : loaded.problems)
        log(Level::error, problem);
    const Reach reach = reach_of(configuration_, loaded.configuration);
    if (!loaded.problems.empty())
        log(Level::error, "the configuration stays as it was");
    else if (reach == Reach::everything)
        successor_ = std::move(loaded.configuration);
    else
        take_over(std::move(loaded.configuration), reach == Reach::connection, now);
    if (!successor_)
        manager_.ready();
}

void Bridge::take_over(Configuration configuration, bool connects_anew, Clock::time_point now)
{
    if (connects_anew)
        session_.leave();
    // The parts still point to the old rules until they have found the new ones.
    const Configuration before = std::exchange(configuration_, std::move(configuration));
    topics_.reload(before, now);
    publications_.reload(now);
    inbound_.reload();
    if (connects_anew)
        session_.connect_anew(now);
    else
        session_.renew(now);
    changes_.make_scan_due(now);
    log(Level::info, "the configuration has been read again: " + configuration_.summary() +
                         (connects_anew ? "; connecting anew" : ""));
}

// What changed before a connection waits with the rest.
void Bridge::go_online(bool kept, bool has_read)
{
    const uint64_t time = kp_get_timestamp_us();
    const auto now = Clock::now();
    changes_.look_at_marks(now);
    publications_.connected(kept, now);
    inbound_.give_up(shared_.stop_reading(has_read, now));
    inbound_.review();
    if (!std::exchange(has_been_online_, true)) {
        shared_.claim_unsent();
        state_.catch_up(time);
    }
}

int Bridge::poll_timeout(Clock::time_point now) const
{
    if (more_to_send_)
        return 0;
    auto until = std::min(changes_.next_scan(), next_tick_);
    until = std::min(until, session_.due().value_or(until));
    if (const auto due = publications_.due(); due && session_.may_send())
        until = std::min(until, *due);
    const auto left = std::chrono::ceil<milliseconds>(until - now).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, kTick.count()));
}

// While nothing can be sent, marks do not wake this thread, so that a writer shares its processor
// with the receive thread alone. The thread then looks at the marks once a second.
bool Bridge::wait(int signal_fd)
{
    const pollfd signals{signal_fd, POLLIN, 0};
    const pollfd marks{session_.may_send() ? changes_.marks_fd() : -1, POLLIN, 0};
    const pollfd ends{changes_.ends_fd(), POLLIN, 0};
    const pollfd broker{session_.fd(), session_.poll_events(), 0};
    const pollfd answers{session_.may_send() ? answers_->fd() : -1, POLLIN, 0};
    std::array<pollfd, 5> room = {signals, marks, ends, broker, answers};
    const int ready = poll(room.data(), room.size(), poll_timeout(Clock::now()));
    const auto events = [&room, ready](size_t at) {
        return ready > 0 ? room[at].revents : short{0};
    };
    if (events(2) != 0)
        changes_.hear_ends(Clock::now());
    session_.serve(events(3));
    return events(0) != 0;
}

void Bridge::turn(Clock::time_point now)
{
    session_.turn(now);
    for (const std::string &tag : writer_.take_outrun())
        publications_.look_at(tag, now);
    look_for_changes(now);
    send_answers();
    send_values(now);
    if (now >= next_tick_)
        tick(now);
}

void Bridge::look_for_changes(Clock::time_point now)
{
    if (session_.may_send() || now >= next_tick_)
        changes_.look_at_marks(now);
    changes_.scan_when_due(now);
}

void Bridge::send_answers()
{
    while (session_.may_send()) {
        auto answer = answers_->next();
        if (!answer)
            return;
        int id = 0;
        std::string refusal;
        switch (session_.publish(*answer, id, refusal)) {
        case SendOutcome::sent:
            answers_->sent(std::move(*answer), id);
            break;
        case SendOutcome::refused:
            answers_->refused(*answer, refusal);
            break;
        case SendOutcome::lost:
            return answers_->put_back(std::move(*answer));
        }
    }
}

void Bridge::send_values(Clock::time_point now)
{
    more_to_send_ = false;
    for (int count = 0; session_.may_send(); ++count) {
        if (count == kMostAtOnce) {
            more_to_send_ = true;
            return;
        }
        const auto publication = publications_.next(now);
        give_over_tags();
        if (!publication)
            return;
        int id = 0;
        std::string refusal;
        switch (session_.publish(*publication, id, refusal)) {
        case SendOutcome::sent:
            publications_.sent(*publication, id, now);
            break;
        case SendOutcome::refused:
            publications_.refused(*publication, refusal);
            break;
        case SendOutcome::lost:
            return publications_.not_sent(*publication);
        }
    }
}

void Bridge::give_over_tags()
{
    for (const std::string &tag : publications_.take_tags_of_others())
        if (inbound_.give_over(tag))
            writer_.give_over(tag);
}

void Bridge::tick(Clock::time_point now)
{
    next_tick_ = now + kTick;
    manager_.keep_watchdog_quiet(now);
    log_what_was_left_out(now);
    unheard_.look(now);
    if (dictionary_.look())
        take_over_dictionary(now);
    if (has_been_online_)
        shared_.claim_unsent();
    show_status(now, session_.is_online());
    const bool stuck = writer_.busy_for(now) > kStuck;
    if (stuck && !reported_stuck_)
        log(Level::warning, "a local peer does not read its notices; values from the broker wait");
    reported_stuck_ = stuck;
}

void Bridge::take_over_dictionary(Clock::time_point now)
{
    use_dictionary(now);
    log(Level::info, "the dictionary of tags has been read again");
}

void Bridge::use_dictionary(Clock::time_point now)
{
    topics_.use(dictionary_.current(), now);
    publications_.dictionary_changed(dictionary_.is_whole(), now);
}

void Bridge::show_status(Clock::time_point now, bool is_connected)
{
    Status status;
    status.connected = is_connected;
    status.topics = topics_.all().size();
    status.unheard = unheard_.count();
    status.pending = publications_.pending_count();
    status.oldest_unsent_ms = static_cast<uint64_t>(publications_.oldest_age(now).count());
    status_.show(status, counters_);
}

} // namespace kp::mqtt
