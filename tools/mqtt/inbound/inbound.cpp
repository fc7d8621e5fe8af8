#include "inbound/inbound.h"

#include "base/log.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "inbound/conversion.h"
#include "messages/payload.h"
#include "names/topic_names.h"

#include <algorithm>

namespace kp::mqtt {

Inbound::Inbound(const Configuration &configuration, const StoreReader &reader, SharedTags &shared,
                 InboundEvents events, Counters &counters)
    : configuration_(configuration), reader_(reader), shared_(shared), events_(std::move(events)),
      counters_(counters), rules_(configuration), staleness_(rules_, events_.set_quality)
{
}

std::vector<Subscription> Inbound::subscriptions() const
{
    return rules_.subscriptions();
}

void Inbound::reload()
{
    for (const std::string &name : rules_.reload())
        events_.drop(name, false);
    staleness_.review();
}

void Inbound::answered_for(const std::string &filter, bool is_made)
{
    rules_.answered_for(filter, is_made);
}

void Inbound::set_connected(bool is_connected)
{
    staleness_.set_connected(is_connected);
}

void Inbound::review()
{
    staleness_.review();
}

void Inbound::receive(const Message &message)
{
    const bool is_state = staleness_.hear_sender(message);
    InboundRule *rule = rules_.rule_for(message.topic);
    if (!rule)
        return; // of a subscription that is just being cancelled
    if (!rule->is_meant_by(message))
        return; // the copy for a rule that says less; that for this rule comes too
    const Name name = name_for(*rule, message.topic);
    const bool is_one_tree =
        rule->settings->shared && name.problem.empty() &&
        shared_.is_one_tree(*rule->settings, reader_.standing_for(name.text), message.topic);
    WhenDone when_done = events_.listeners_for(message, *rule->settings);
    if (is_own(message) && !is_one_tree)
        return ignore_own(message, *rule->settings, when_done);
    if (!name.problem.empty() && is_state)
        return;
    if (!name.problem.empty())
        return refuse(message.topic, "cannot be a tag: " + name.problem, when_done);
    if (const size_t size = std::max(message.payload.size(), message.left_out);
        size > kMostPayloadBytes)
        return refuse(message.topic,
                      "it has " + std::to_string(size) + " bytes, more than any value can need",
                      when_done);
    if (is_one_tree)
        return take_shared(*rule, name.text, message);
    if (!message.payload.empty())
        return take(*rule, name.text, message, std::move(when_done));
    ++counters_.empty;
    tell(when_done, "it has no payload");
}

void Inbound::ignore_own(const Message &message, const InRule &rule, const WhenDone &when_done)
{
    ++counters_.echoes;
    tell(when_done, "it has the origin of this device");
    if (!rule.shared)
        log_bounded(About::incoming, "the message on " + tool::escaped(message.topic) +
                                         " has the origin of this device and is not "
                                         "written; has another device the same name?");
}

ReadOutcome Inbound::look(const std::string &name, const std::string &tag, Sample &current) const
{
    return events_.is_dropping(name) ? ReadOutcome::missing : reader_.read(tag, current);
}

void Inbound::take_shared(InboundRule &rule, const std::string &name, const Message &message)
{
    const std::string tag = reader_.standing_for(name);
    // Asked before the tag is read: afterwards it may have gone in between, and its value would
    // count as one that stands there still.
    const bool is_dropping = events_.is_dropping(name);
    TagLook look = shared_.look_at(tag);
    const Sample &current = look.sample;
    // Also where the tag is about to go: a message takes the place of a drop that waits.
    const ValueMark stands = look.outcome == ReadOutcome::read ? mark_of(current) : ValueMark{};
    if (is_dropping)
        look.outcome = ReadOutcome::missing;
    switch (shared_.received(message, tag, look, Clock::now())) {
    case Effect::ignore:
        ++counters_.echoes;
        return;
    case Effect::drop:
        lose(rule, name, tag, message.topic, current);
        return shared_.dropped(message.topic);
    case Effect::repeat:
        return events_.cleared(tag);
    case Effect::write:
        break;
    }
    WriteRequest request;
    request.key = key_of(message);
    request.only_over = stands;
    write(rule, name, message, look.outcome, current, std::move(request));
}

// A tag that others provide stays without the bridge, and the broker has to get its value again.
// Of what an earlier run has left behind nobody knows whether the provider that is counted lives,
// or is the bridge of that run, which was killed.
void Inbound::lose(InboundRule &rule, const std::string &name, const std::string &tag,
                   const std::string &topic, const Sample &current)
{
    if (shared_.is_left_over(topic, current))
        return drop(rule, name, true);
    const auto written = rule.tags.find(name);
    const bool is_own = written != rule.tags.end() && written->second.is_own;
    const bool lives = current.providers > (is_own ? 1u : 0u);
    if (is_own || !lives)
        drop(rule, name, false);
    if (lives)
        events_.cleared(tag);
}

void Inbound::drop(InboundRule &rule, const std::string &name, bool left_over)
{
    rule.tags.erase(name);
    events_.drop(name, left_over);
}

void Inbound::give_up(const std::vector<std::string> &topics)
{
    for (const std::string &topic : topics) {
        InboundRule *rule = rules_.rule_for(topic);
        if (!rule)
            continue;
        if (const Name name = name_for(*rule, topic); !name.text.empty())
            drop(*rule, name.text, !rule->tags.contains(name.text));
    }
}

bool Inbound::give_over(const std::string &tag)
{
    return rules_.disown({tag, plain_name(tag)});
}

// The boot does not count: what the broker has kept from before a restart is an echo, too.
bool Inbound::is_own(const Message &message) const
{
    const std::string sender = sender_of(message);
    return !sender.empty() && sender == configuration_.device;
}

// The writer makes room for a name below a tag that the bridge has written, where it can.
Name Inbound::name_for(const InboundRule &rule, const std::string &topic) const
{
    Name name = to_tag_topic(rule.settings->prefix, rule.settings->tags, topic);
    if (!name.problem.empty())
        return name;
    if (tool::Pattern(configuration_.status_prefix + "/#").covers(name.text))
        return {{}, "it is the bridge's own"};
    if (tool::place_of(name.text) == tool::Place::below_a_topic &&
        !rules_.is_below_a_written_tag(name.text))
        return {{}, "a part of its name is a tag with a value"};
    return name;
}

void Inbound::take(InboundRule &rule, const std::string &name, const Message &message,
                   WhenDone when_done)
{
    Sample current;
    const ReadOutcome outcome = look(name, reader_.standing_for(name), current);
    WriteRequest request;
    request.when_done = std::move(when_done);
    write(rule, name, message, outcome, current, std::move(request));
}

void Inbound::write(InboundRule &rule, const std::string &name, const Message &message,
                    ReadOutcome outcome, const Sample &current, WriteRequest request)
{
    const bool is_new = !rule.tags.contains(name);
    if (is_new && rule.tags.size() >= rule.settings->max_tags)
        return refuse(message.topic, "the rule has written max-tags tags already",
                      request.when_done);
    // A tag that is the bridge's alone takes another type from its message.
    const bool declares = request.key && is_ours_alone(rule, name, current);
    const ReadOutcome found = declares ? ReadOutcome::missing : outcome;
    if (const std::string problem = convert(*rule.settings, message, found, current, request);
        !problem.empty())
        return refuse(message.topic, problem, request.when_done);
    TakenTag taken;
    taken.is_own =
        !request.is_declared || (is_new ? events_.is_left(name) : rule.tags[name].is_own);
    taken.sender = sender_of(message);
    taken.quality = request.sample.quality;
    request.sample.quality = taken.shown = staleness_.quality_of(rule, taken);
    if (rule.settings->shared && outcome == ReadOutcome::read && current.has_value &&
        is_superfluous(reader_.standing_for(name), message, current, request)) {
        ++counters_.echoes;
        return;
    }
    if (request.key)
        shared_.taken(message.topic);
    rule.tags[name] = std::move(taken);
    request.messages = 1;
    events_.put(name, std::move(request));
}

bool Inbound::is_ours_alone(const InboundRule &rule, const std::string &name,
                            const Sample &current) const
{
    const auto written = rule.tags.find(name);
    return written != rule.tags.end() && written->second.is_own && current.providers <= 1;
}

// A value can be one that the tag has already. Where two trees are joined, it can also be older
// than one that was written here: a time in the future means a clock that is wrong, and counts as
// now; of two equal times the greater device decides, as it does at the other one.
bool Inbound::is_superfluous(const std::string &tag, const Message &message, const Sample &current,
                             const WriteRequest &request) const
{
    const Sample &wanted = request.sample;
    const bool same = wanted.type == current.type && wanted.value == current.value &&
                      wanted.source_ts == current.source_ts && wanted.quality == current.quality;
    if (same)
        return shared_.has_already(tag, current, request.key);
    if (request.key || shared_.is_from_broker(tag, current))
        return false;
    const uint64_t now = kp_get_timestamp_us();
    const uint64_t ours = std::min(current.source_ts, now);
    const uint64_t theirs = std::min(wanted.source_ts, now);
    return theirs != ours ? theirs < ours : sender_of(message) < configuration_.device;
}

void Inbound::refuse(const std::string &topic, const std::string &why, const WhenDone &when_done)
{
    ++counters_.refused;
    tell(when_done, why);
    const std::string text = "the message on " + tool::escaped(topic) + " is refused: " + why;
    log_bounded(About::incoming, text);
}

} // namespace kp::mqtt
