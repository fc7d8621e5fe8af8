#include "outbound/publications.h"

#include "base/log.h"
#include "common/text/text.h"
#include "outbound/make_publication.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

constexpr milliseconds kBusyDelay{100}; // until a topic in the middle of a write is looked at again
constexpr milliseconds kSettleDelay{10};  // the same, where the write is the bridge's own
constexpr milliseconds kQuotaDelay{1000}; // after a broker has said that it has no room
constexpr milliseconds kBurstDelay{10};

} // namespace

Publications::Publications(const Configuration &configuration, const StoreReader &reader,
                           LocalWriter *writer, StateFile &state, std::string origin,
                           PendingNames &pending, TopicTable &topics, SharedTags &shared,
                           Counters &counters)
    : configuration_(configuration), reader_(reader), writer_(writer), state_(state),
      origin_(std::move(origin)), pending_(pending), topics_(topics), shared_(shared),
      counters_(counters), schedule_(topics, state, pending),
      announcements_(configuration, topics, state, pending),
      burst_(configuration.broker.burst_rate), number_(kp_get_timestamp_us())
{
}

void Publications::connected(bool kept, Clock::time_point now)
{
    burst_ = TokenBucket(configuration_.broker.burst_rate);
    schedule_.take_deferred(now);
    take_up_what_waits();
    pending_.join_burst();
    if (kept)
        return;
    for (const auto &[tag, topic] : topics_.all()) {
        if (topic->is_shared)
            continue;
        topic->must_send = true;
        topic->announced_type = UINT32_MAX;
        if (topic->seen && topic->seen->has_value)
            pending_.mark_burst(topic->mqtt, now);
    }
    for (const std::string &mqtt : acknowledged_.take_cleared())
        if (!configuration_.shares(mqtt)) // what a shared tree holds has been read
            state_.add(mqtt);
    for (const std::string &mqtt : state_.topics())
        if (!configuration_.shares(mqtt))
            pending_.mark_burst(mqtt, now);
}

void Publications::reload(Clock::time_point now)
{
    burst_ = TokenBucket(configuration_.broker.burst_rate);
    schedule_.take_deferred(Clock::time_point::max());
    for (const auto &[tag, topic] : topics_.all())
        schedule_.remind(*topic);
    announcements_.review(now);
}

void Publications::dictionary_changed(bool is_whole, Clock::time_point now)
{
    announcements_.set_whole(is_whole);
    announcements_.review(now);
}

// So that only what changes from now on leaves the burst.
void Publications::take_up_what_waits()
{
    for (const auto &[tag, topic] : topics_.all()) {
        Sample sample;
        if (pending_.has_change(topic->mqtt) && reader_.read(tag, sample) == ReadOutcome::read)
            (void)topics_.take_up(*topic, std::move(sample));
    }
}

void Publications::connection_lost(Clock::time_point now)
{
    for (const auto &[id, publication] : unacknowledged_.take_all())
        topics_.mark_again(publication.topic, publication.since);
    shared_.connection_lost();
    // Messages at QoS 0 that were sent since the broker's last sign of life may not have arrived.
    const auto doubtful = now - std::chrono::seconds(2 * configuration_.broker.keep_alive_s);
    for (const auto &[tag, topic] : topics_.all())
        if (topic->rule->qos == 0 && topic->gate.sent_at() > doubtful)
            topics_.mark_again(topic->mqtt, now);
}

void Publications::repeat(const std::string &tag, Clock::time_point now)
{
    if (const OutTopic *topic = topics_.of_tag(tag))
        topics_.mark_again(topic->mqtt, now);
}

void Publications::look_at(const std::string &tag, Clock::time_point now)
{
    topics_.look_at(tag, now);
    if (const OutTopic *topic = topics_.of_tag(tag))
        pending_.mark_change(topic->mqtt, now);
}

std::optional<Publication> Publications::next(Clock::time_point now)
{
    schedule_.take_deferred(now);
    schedule_.take_reminders(now);
    while (true) {
        const auto waiting = pending_.take(burst_.may_pass(now));
        if (!waiting)
            return {};
        OutTopic *topic = topics_.of_mqtt(waiting->name);
        auto publication = topic ? publication_for(*topic, waiting->since, now)
                                 : publication_beside_tags(waiting->name);
        if (!publication)
            continue;
        if (waiting->in_burst)
            burst_.pass();
        if (publication->retain && configuration_.shares(publication->topic)) {
            publication->number = ++number_;
            publication->properties.emplace_back(property::kNumber, std::to_string(number_));
        }
        publication->since = waiting->since;
        return publication;
    }
}

std::optional<Publication> Publications::publication_for(OutTopic &topic, Clock::time_point since,
                                                         Clock::time_point now)
{
    // The value follows when the broker has acknowledged that the retained one is cleared.
    if (!topic.rule->retain && state_.has(topic.mqtt))
        return unacknowledged_.has_clearing_of(topic.mqtt) ? std::nullopt : clearing(topic.mqtt);
    // What is about to be replaced must not go: it would come after its successor in the broker's
    // order.
    if (topic.is_shared && shared_.is_settling(topic.tag)) {
        schedule_.defer(topic, now + kSettleDelay, since);
        return {};
    }
    Sample sample;
    const ReadOutcome outcome = reader_.read(topic.tag, sample);
    if (outcome == ReadOutcome::busy)
        schedule_.defer(topic, now + kBusyDelay, since);
    if (outcome == ReadOutcome::busy || outcome == ReadOutcome::refused)
        return {};
    if (outcome != ReadOutcome::read || !sample.has_value)
        return clearing(topic.mqtt);
    if (is_held(topic, sample))
        return {};
    (void)topics_.take_up(topic, sample);
    if (topic.providers_gone)
        sample.quality = static_cast<uint8_t>(configuration_.quality_when_gone);
    const bool passes = passes_gate(topic, sample, now);
    if (!topic.is_deferred)
        topic.settled = mark_of(sample);
    if (!passes)
        return {};
    if (topic.rule->retain)
        state_.add(topic.mqtt, sample.providers > 0 || topic.providers_gone);
    topic.gate.sent(sample, now);
    topic.must_send = false;
    schedule_.remind(topic);
    announcements_.value_goes(topic, sample.type, now);
    return make_value(topic, sample, origin_);
}

// Says whether the value came from the broker, so that it need not be sent there.
bool Publications::is_held(OutTopic &topic, const Sample &sample)
{
    if (!topic.is_shared)
        return writer_ && writer_->key_of(topic.tag, sample);
    if (shared_.is_known(topic, sample)) {
        topic.must_send = false;
        return true;
    }
    if (writer_)
        writer_->forget(topic.tag); // it is this device's from now on
    if (sample.providers > 1)
        taken_over_.push_back(topic.tag);
    return false;
}

bool Publications::passes_gate(OutTopic &topic, const Sample &sample, Clock::time_point now)
{
    if (topic.must_send)
        return true;
    const Quiet quiet = with_range(topic.rule->quiet, topic.facts);
    auto verdict = topic.gate.judge(quiet, sample, now);
    // The gate knows what was sent last, and in a shared tree that need not be what stands there.
    if (verdict == Gate::Verdict::skip && topic.is_shared && !shared_.has_own_last(topic.mqtt))
        verdict = Gate::Verdict::send;
    if (verdict == Gate::Verdict::later)
        schedule_.defer(topic, topic.gate.due(quiet), topic.gate.due(quiet));
    return verdict == Gate::Verdict::send;
}

std::optional<Publication> Publications::clearing(const std::string &mqtt)
{
    if (shared_.is_removed(mqtt))
        state_.add(mqtt); // until the broker has taken the clearing
    if (!state_.has(mqtt))
        return {};
    return make_clearing(mqtt, origin_);
}

std::optional<Publication> Publications::publication_beside_tags(const std::string &mqtt)
{
    auto announcement = announcements_.take_due(mqtt);
    if (announcement.what == Announcements::What::stays)
        return {};
    if (announcement.what == Announcements::What::ends)
        return clearing(mqtt);
    state_.add(mqtt);
    return make_announcement(mqtt, std::move(announcement.text), origin_);
}

void Publications::sent(const Publication &publication, int id, Clock::time_point now)
{
    shared_.sent(publication, now);
    if (id)
        unacknowledged_.add(id, publication);
    else
        ++counters_.out;
}

void Publications::acknowledged(int id, const Answer &answer, Clock::time_point now)
{
    auto publication = unacknowledged_.take(id);
    if (!publication)
        return;
    if (answer.is_refusal()) {
        refused(*publication, answer.text);
        if (answer.reason == kQuotaExceeded)
            send_again_later(*publication, now);
        return;
    }
    ++counters_.out;
    if (!publication->payload.empty() && publication->retain)
        acknowledged_.keep(std::move(*publication));
    else
        forget_cleared(*publication);
}

void Publications::send_again_later(const Publication &publication, Clock::time_point now)
{
    if (OutTopic *topic = topics_.of_mqtt(publication.topic))
        topic->must_send = true;
    schedule_.defer(publication.topic, now + kQuotaDelay, publication.since);
}

void Publications::forget_cleared(const Publication &publication)
{
    if (!publication.payload.empty() || !state_.has(publication.topic))
        return;
    acknowledged_.keep_no_more(publication.topic);
    const OutTopic *topic = topics_.of_mqtt(publication.topic);
    // An announcement may be on its way again; then it stands.
    if (!topic && !unacknowledged_.has(publication.topic)) {
        state_.remove(publication.topic);
        acknowledged_.remember_cleared(publication.topic);
    }
    if (topic && !topic->rule->retain) {
        state_.remove(publication.topic);
        pending_.mark_change(publication.topic, publication.since);
    }
}

void Publications::refused(const Publication &publication, const std::string &why)
{
    ++counters_.refused;
    shared_.refused(publication);
    const std::string text =
        "the broker does not take " + tool::escaped(publication.topic) + ": " + why;
    log_bounded(About::outgoing, text);
}

void Publications::not_sent(const Publication &publication)
{
    topics_.mark_again(publication.topic, publication.since);
}

std::optional<Clock::time_point> Publications::due() const
{
    std::optional<Clock::time_point> due = schedule_.due();
    if (pending_.has_burst() && !pending_.has_change())
        due = std::min(due.value_or(Clock::time_point::max()), Clock::now() + kBurstDelay);
    return due;
}

milliseconds Publications::oldest_age(Clock::time_point now) const
{
    Clock::time_point oldest = std::min(now, pending_.oldest().value_or(now));
    oldest = std::min(oldest, unacknowledged_.oldest().value_or(now));
    oldest = std::min(oldest, schedule_.oldest().value_or(now));
    return std::chrono::duration_cast<milliseconds>(now - oldest);
}

} // namespace kp::mqtt
