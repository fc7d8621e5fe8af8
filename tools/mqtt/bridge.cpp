#include "bridge.h"

#include "log.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <poll.h>

namespace kp::mqtt {

namespace {

constexpr milliseconds kTick{1000};
constexpr milliseconds kScanSoon{100}; // after a notice of a topic that is not known
constexpr milliseconds kLeaving{1500}; // for the last messages
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

Bridge::Bridge(const Configuration &configuration, Credentials credentials, StateFile &state,
               ChangeMarks &marks, LocalWriter &writer, Counters &counters)
    : configuration_(configuration), credentials_(std::move(credentials)), marks_(marks),
      writer_(writer), counters_(counters), origin_(make_origin(configuration.device)),
      outbound_(configuration, reader_, &writer, state, origin_, counters),
      inbound_(configuration, reader_,
               {[this](const std::string &tag, WriteRequest request) {
                    writer_.put(tag, std::move(request));
                },
                [this](const std::string &tag) { writer_.drop(tag); },
                [this](const std::string &tag) { outbound_.repeat(tag, Clock::now()); },
                [this](const std::string &tag) {
                    writer_.forget(tag);
                    outbound_.repeat(tag, Clock::now());
                },
                [this](const std::string &tag) { return writer_.is_dropping(tag); }},
               counters),
      lost_providers_(outbound_, configuration.trust_visible),
      status_(configuration.status_prefix, writer),
      backoff_(configuration.broker.reconnect_min, configuration.broker.reconnect_max)
{
}

int Bridge::run(int signal_fd)
{
    look_for_changes(Clock::now());
    manager_.ready();
    bool stop = false;
    while (!stop) {
        wait(signal_fd, stop);
        turn(Clock::now());
    }
    manager_.stopping();
    leave();
    return 0;
}

bool Bridge::can_send() const
{
    return phase_ == Phase::online && link_ && link_->may_send();
}

int Bridge::poll_timeout(Clock::time_point now) const
{
    if (more_to_send_)
        return 0;
    auto until = std::min(next_scan_, next_tick_);
    if (phase_ != Phase::online)
        until = std::min(until, phase_ends_);
    if (const auto due = outbound_.due(); due && can_send())
        until = std::min(until, *due);
    const auto left = std::chrono::ceil<milliseconds>(until - now).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, kTick.count()));
}

// While nothing can be sent no mark wakes this thread, so that a writer shares its processor with the
// receive thread alone; what is marked is looked at once a second then.
void Bridge::wait(int signal_fd, bool &stop)
{
    std::array<pollfd, 4> room = {{{signal_fd, POLLIN, 0},
                                   {can_send() ? marks_.fd() : -1, POLLIN, 0},
                                   {-1, 0, 0},
                                   {lost_providers_.fd(), POLLIN, 0}}};
    if (link_)
        room[2] = {link_->fd(), link_->poll_events(), 0};
    const int ready = poll(room.data(), room.size(), poll_timeout(Clock::now()));
    stop = ready > 0 && room[0].revents != 0;
    if (ready > 0 && room[3].revents != 0)
        lost_providers_.hear_ends(Clock::now());
    if (link_)
        link_->serve(ready > 0 ? room[2].revents : short{0});
}

void Bridge::turn(Clock::time_point now)
{
    if (std::exchange(is_closed_, false))
        drop_connection(now);
    look_for_changes(now);
    keep_connection(now);
    send_values(now);
    if (now >= next_tick_)
        tick(now);
}

void Bridge::look_at_marks(Clock::time_point now)
{
    const Buckets buckets = marks_.take();
    if (buckets.any() && !outbound_.refresh(buckets, now))
        next_scan_ = std::min(next_scan_, last_scan_ + kScanSoon);
}

void Bridge::look_for_changes(Clock::time_point now)
{
    if (can_send() || now >= next_tick_)
        look_at_marks(now);
    next_scan_ = std::min(next_scan_, lost_providers_.wants_scan_at().value_or(next_scan_));
    if (now < next_scan_)
        return;
    outbound_.scan(now);
    last_scan_ = now;
    next_scan_ = now + configuration_.scan_interval;
    lost_providers_.look(now);
}

void Bridge::send_values(Clock::time_point now)
{
    more_to_send_ = false;
    for (int count = 0; phase_ == Phase::online && link_->may_send(); ++count) {
        if (count == kMostAtOnce) {
            more_to_send_ = true;
            return;
        }
        const auto publication = outbound_.next(now);
        if (!publication)
            return;
        int id = 0;
        std::string refusal;
        switch (link_->publish(*publication, id, refusal)) {
        case SendOutcome::sent:
            outbound_.sent(*publication, id);
            break;
        case SendOutcome::refused:
            outbound_.refused(*publication, refusal);
            break;
        case SendOutcome::lost:
            return outbound_.not_sent(*publication);
        }
    }
}

void Bridge::acknowledged(int id, int reason)
{
    if (id == state_id_)
        state_id_ = 0;
    outbound_.acknowledged(id, reason, Clock::now());
}

void Bridge::tick(Clock::time_point now)
{
    next_tick_ = now + kTick;
    manager_.keep_watchdog_quiet(now);
    Status status;
    status.connected = phase_ == Phase::online;
    status.topics = outbound_.topic_count();
    status.pending = outbound_.pending_count();
    status.oldest_unsent_ms = static_cast<uint64_t>(outbound_.oldest_age(now).count());
    status_.show(status, counters_);
    const bool stuck = writer_.busy_for(now) > kStuck;
    if (stuck && !reported_stuck_)
        log(Level::warning, "a local peer does not read its notices; values from the broker wait");
    reported_stuck_ = stuck;
}

// Says offline, as far as that is quick, then goodbye. What waits is sent again by the next start.
void Bridge::leave()
{
    if (phase_ != Phase::online)
        return;
    const auto deadline = Clock::now() + kLeaving;
    send_state("offline", true);
    while (state_id_ && !is_closed_ && Clock::now() < deadline) {
        pollfd broker = {link_->fd(), link_->poll_events(), 0};
        (void)poll(&broker, 1, 50);
        link_->serve(broker.revents);
    }
    if (!is_closed_)
        link_->disconnect();
}

} // namespace kp::mqtt
