// The part of Outbound that makes messages of what changed and hears what became of them.
#include "outbound/outbound.h"

namespace kp::mqtt {

namespace {

constexpr milliseconds kBusyDelay{100}; // until a topic in the middle of a write is looked at again
constexpr milliseconds kQuotaDelay{1000}; // after a broker has said that it has no room
constexpr milliseconds kBurstDelay{10};

} // namespace

std::optional<Publication> Outbound::next(Clock::time_point now)
{
    take_what_is_due(now);
    while (true) {
        const bool from_burst = !pending_.has_change();
        const auto waiting = pending_.take(burst_.may_pass(now));
        if (!waiting)
            return {};
        const auto live = by_mqtt_.find(waiting->name);
        auto publication = live == by_mqtt_.end()
                               ? clearing(waiting->name)
                               : publication_for(*live->second, waiting->since, now);
        if (!publication)
            continue;
        if (from_burst)
            burst_.pass();
        publication->since = waiting->since;
        return publication;
    }
}

void Outbound::take_what_is_due(Clock::time_point now)
{
    while (!later_.empty() && later_.begin()->first <= now) {
        const PendingNames::Waiting waiting = std::move(later_.begin()->second);
        later_.erase(later_.begin());
        const auto live = by_mqtt_.find(waiting.name);
        if (live != by_mqtt_.end())
            live->second->is_deferred = false;
        if (live != by_mqtt_.end() || state_.has(waiting.name))
            pending_.mark_change(waiting.name, waiting.since);
    }
}

std::optional<Publication> Outbound::publication_for(Topic &topic, Clock::time_point since,
                                                     Clock::time_point now)
{
    // The value follows once the broker has taken the clearing of what was retained.
    if (!topic.rule->retain && state_.has(topic.mqtt))
        return is_clearing(topic.mqtt) ? std::nullopt : clearing(topic.mqtt);
    Sample sample;
    const ReadOutcome outcome = reader_.read(topic.tag, sample);
    if (outcome == ReadOutcome::busy)
        defer(topic, now + kBusyDelay, since);
    if (outcome == ReadOutcome::busy || outcome == ReadOutcome::refused)
        return {};
    if (outcome != ReadOutcome::read || !sample.has_value)
        return clearing(topic.mqtt);
    if (writer_ && writer_->is_own(topic.tag, sample))
        return {}; // it came from the broker
    (void)take_up(topic, sample);
    if (topic.providers_gone)
        sample.quality = static_cast<uint8_t>(configuration_.quality_when_gone);
    const auto verdict =
        topic.must_send ? Gate::Verdict::send : topic.gate.judge(topic.rule->quiet, sample, now);
    if (verdict == Gate::Verdict::later)
        defer(topic, topic.gate.due(topic.rule->quiet), topic.gate.due(topic.rule->quiet));
    if (verdict != Gate::Verdict::send)
        return {};
    if (topic.rule->retain)
        state_.add(topic.mqtt, sample.providers > 0 || topic.providers_gone);
    topic.gate.sent(sample, now);
    topic.must_send = false;
    return publication_of(topic, sample);
}

void Outbound::defer(Topic &topic, Clock::time_point until, Clock::time_point since)
{
    if (!std::exchange(topic.is_deferred, true))
        later_.emplace(until, PendingNames::Waiting{topic.mqtt, since});
}

bool Outbound::is_clearing(const std::string &mqtt) const
{
    return std::ranges::any_of(unacknowledged_, [&mqtt](const auto &item) {
        return item.second.topic == mqtt && item.second.payload.empty();
    });
}

std::optional<Publication> Outbound::clearing(const std::string &mqtt) const
{
    if (!state_.has(mqtt))
        return {};
    Publication publication;
    publication.topic = mqtt;
    publication.retain = true;
    publication.properties = {{property::kOrigin, origin_}};
    return publication;
}

Publication Outbound::publication_of(const Topic &topic, const Sample &sample) const
{
    const OutRule &rule = *topic.rule;
    Payload payload = make_payload(rule.payload, topic.tag, sample, sample.quality);
    Publication publication;
    publication.topic = topic.mqtt;
    publication.payload = std::move(payload.bytes);
    publication.qos = rule.qos;
    publication.retain = rule.retain;
    publication.content_type = payload.content_type;
    publication.is_utf8 = payload.is_utf8;
    publication.expiry_s = rule.expiry_s;
    publication.properties = describing_properties(sample, sample.quality);
    publication.properties.emplace_back(property::kOrigin, origin_);
    return publication;
}

void Outbound::sent(const Publication &publication, int id)
{
    if (id)
        unacknowledged_[id] = publication;
    else
        ++counters_.out;
}

void Outbound::acknowledged(int id, int reason, Clock::time_point now)
{
    const auto found = unacknowledged_.find(id);
    if (found == unacknowledged_.end())
        return;
    Publication publication = std::move(found->second);
    unacknowledged_.erase(found);
    const auto live = by_mqtt_.find(publication.topic);
    if (reason >= kFirstRefusal) {
        refused(publication, reason_text(reason));
        if (reason == kQuotaExceeded && live != by_mqtt_.end()) {
            live->second->must_send = true;
            defer(*live->second, now + kQuotaDelay, publication.since);
        } else if (reason == kQuotaExceeded) {
            later_.emplace(now + kQuotaDelay,
                           PendingNames::Waiting{publication.topic, publication.since});
        }
        return;
    }
    ++counters_.out;
    if (!publication.payload.empty() && publication.retain)
        last_kept_ = std::move(publication);
    else
        forget_cleared(publication);
}

void Outbound::forget_cleared(const Publication &publication)
{
    if (!publication.payload.empty() || !state_.has(publication.topic))
        return;
    if (last_kept_ && last_kept_->topic == publication.topic)
        last_kept_.reset();
    const auto live = by_mqtt_.find(publication.topic);
    if (live == by_mqtt_.end())
        return state_.remove(publication.topic);
    if (!live->second->rule->retain) {
        state_.remove(publication.topic);
        pending_.mark_change(publication.topic, publication.since);
    }
}

void Outbound::refused(const Publication &publication, const std::string &why)
{
    ++counters_.refused;
    const std::string text = "the broker does not take " + publication.topic + ": " + why;
    if (said_.is_new(text))
        log(Level::warning, text);
}

void Outbound::not_sent(const Publication &publication)
{
    mark_again(publication.topic, publication.since);
}

std::optional<Clock::time_point> Outbound::due() const
{
    std::optional<Clock::time_point> due;
    if (!later_.empty())
        due = later_.begin()->first;
    if (pending_.has_burst() && !pending_.has_change())
        due = std::min(due.value_or(Clock::time_point::max()), Clock::now() + kBurstDelay);
    return due;
}

milliseconds Outbound::oldest_age(Clock::time_point now) const
{
    Clock::time_point oldest = std::min(now, pending_.oldest().value_or(now));
    for (const auto &[id, publication] : unacknowledged_)
        oldest = std::min(oldest, publication.since);
    for (const auto &[until, waiting] : later_)
        oldest = std::min(oldest, waiting.since);
    return std::chrono::duration_cast<milliseconds>(now - oldest);
}

} // namespace kp::mqtt
