#include "inbound/inbound.h"

#include "base/log.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "inbound/conversion.h"
#include "messages/payload.h"
#include "names/topic_names.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

// What makes it the same rule for a reload, and for a broker that has kept messages for it.
std::string identity_of(const InRule &rule)
{
    return rule.prefix + '\n' + rule.filter + '\n' + rule.tags;
}

} // namespace

Inbound::Inbound(const Configuration &configuration, const StoreReader &reader, SharedTags &shared,
                 InboundEvents events, Counters &counters)
    : configuration_(configuration), reader_(reader), shared_(shared), events_(std::move(events)),
      counters_(counters)
{
    for (const InRule &rule : configuration.in)
        rules_.push_back({&rule, number_for(identity_of(rule))});
    find_state_filters();
}

// A rule that stays keeps the number of its subscription, which need not be made anew then.
void Inbound::reload()
{
    std::vector<Rule> before = std::exchange(rules_, {});
    for (const InRule &settings : configuration_.in) {
        const auto same = std::ranges::find_if(before, [&settings](const Rule &rule) {
            return identity_of(*rule.settings) == identity_of(settings);
        });
        if (same == before.end())
            rules_.push_back({&settings, number_for(identity_of(settings)), {}, {}, true});
        else
            rules_.push_back({&settings, same->number, std::exchange(same->tags, {}), same->away});
    }
    for (const Rule &rule : before)
        for (const auto &[name, taken] : rule.tags)
            if (taken.is_own && std::ranges::none_of(rules_, [&name](const Rule &other) {
                    return other.tags.contains(name);
                }))
                events_.drop(name, false);
    find_state_filters();
    review();
}

// The same text has the same number in every run, since a broker can keep messages that came for a
// subscription until the next one. It is a hash (FNV-1a) in the range of such numbers.
uint32_t Inbound::number_for(const std::string &text) const
{
    constexpr uint32_t most = 268'435'455;
    uint64_t hash = 14'695'981'039'346'656'037u;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1'099'511'628'211u;
    auto number = static_cast<uint32_t>(hash % most);
    const auto is_taken = [this, &number] {
        return std::ranges::any_of(rules_,
                                   [&number](const Rule &rule) { return rule.number == number; }) ||
               std::ranges::any_of(state_filters_, [&number](const auto &filter) {
                   return filter.second == number;
               });
    };
    do
        number = number % most + 1;
    while (is_taken());
    return number;
}

void Inbound::find_state_filters()
{
    const auto before = std::exchange(state_filters_, {});
    for (const Rule &rule : rules_) {
        const std::string &filter = rule.settings->sender_state;
        const auto same = before.find(filter);
        if (!filter.empty() && !state_filters_.contains(filter))
            state_filters_[filter] =
                same == before.end() ? number_for("state of senders\n" + filter) : same->second;
    }
}

void Inbound::subscribed(const std::string &filter)
{
    for (Rule &rule : rules_)
        if (rule.settings->full_filter() == filter)
            rule.is_awaited = false;
}

std::vector<Subscription> Inbound::subscriptions() const
{
    std::vector<Subscription> subscriptions;
    for (const Rule &rule : rules_) {
        const InRule &settings = *rule.settings;
        const bool own_too = settings.shared && settings.retained;
        subscriptions.push_back(
            {settings.full_filter(), settings.qos, settings.retained, own_too, rule.number});
    }
    for (const auto &[filter, number] : state_filters_)
        subscriptions.push_back({filter, 1, true, false, number, true});
    return subscriptions;
}

// Without an origin, as other programs send it, a state counts for all tags of the rule.
bool Inbound::hear_sender(const Message &message)
{
    const std::string sender(origin_device(property_of(message.properties, property::kOrigin)));
    const bool is_away = message.payload == "offline";
    bool is_state = false;
    for (Rule &rule : rules_) {
        const std::string &filter = rule.settings->sender_state;
        if (filter.empty() || !tool::Pattern(filter, tool::Dialect::mqtt).covers(message.topic))
            continue;
        is_state = true;
        if (!is_away)
            rule.away.erase(sender);
        else if (rule.away.size() < rule.settings->max_tags)
            rule.away.insert(sender);
        review(rule);
    }
    return is_state;
}

uint8_t Inbound::quality_now(const Rule &rule, const Taken &taken) const
{
    const bool is_stale =
        !is_connected_ || rule.away.contains(taken.sender) || rule.away.contains("");
    return is_stale ? rule.settings->quality_when_stale.value_or(taken.quality) : taken.quality;
}

void Inbound::review(Rule &rule)
{
    for (auto &[name, taken] : rule.tags) {
        const uint8_t quality = quality_now(rule, taken);
        if (std::exchange(taken.shown, quality) != quality)
            events_.set_quality(name, quality);
    }
}

void Inbound::review()
{
    for (Rule &rule : rules_)
        review(rule);
}

void Inbound::set_connected(bool is_connected)
{
    is_connected_ = is_connected;
    if (!is_connected)
        review();
}

void Inbound::receive(const Message &message)
{
    const bool is_state = hear_sender(message);
    Rule *rule = rule_for(message.topic);
    if (!rule)
        return; // of a subscription that is just being cancelled
    const auto &came_for = message.subscriptions;
    if (!came_for.empty() && !rule->is_awaited &&
        std::ranges::find(came_for, rule->number) == came_for.end())
        return; // the copy for a rule that says less; that for this rule comes too
    const Name name = name_for(*rule, message.topic);
    const bool is_one_tree =
        rule->settings->shared && name.problem.empty() &&
        shared_.is_one_tree(*rule->settings, reader_.standing_for(name.text), message.topic);
    WhenDone when_done = events_.ask(message, *rule->settings);
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

void Inbound::take_shared(Rule &rule, const std::string &name, const Message &message)
{
    const std::string tag = reader_.standing_for(name);
    TagLook look = shared_.look_at(tag);
    const Sample &current = look.sample;
    // Also where the tag is about to go: a message takes the place of a drop that waits.
    const ValueMark stands = look.outcome == ReadOutcome::read ? mark_of(current) : ValueMark{};
    if (events_.is_dropping(name))
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
void Inbound::lose(Rule &rule, const std::string &name, const std::string &tag,
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

void Inbound::drop(Rule &rule, const std::string &name, bool left_over)
{
    rule.tags.erase(name);
    events_.drop(name, left_over);
}

void Inbound::give_up(const std::vector<std::string> &topics)
{
    for (const std::string &topic : topics) {
        Rule *rule = rule_for(topic);
        const Name name = rule ? name_for(*rule, topic) : Name{};
        if (!name.text.empty())
            drop(*rule, name.text, !rule->tags.contains(name.text));
    }
}

bool Inbound::give_over(const std::string &tag)
{
    const std::string name = plain_name(tag);
    bool was_own = false;
    for (Rule &rule : rules_)
        for (const std::string &known : {tag, name})
            if (const auto taken = rule.tags.find(known); taken != rule.tags.end())
                was_own = std::exchange(taken->second.is_own, false) || was_own;
    return was_own;
}

Inbound::Rule *Inbound::rule_for(const std::string &topic)
{
    const InRule *settings = configuration_.in_rule_for(topic);
    return settings ? &rules_[static_cast<size_t>(settings - configuration_.in.data())] : nullptr;
}

// The boot does not count: what the broker has kept from before a restart is an echo, too.
bool Inbound::is_own(const Message &message) const
{
    const std::string origin = property_of(message.properties, property::kOrigin);
    return !origin.empty() && origin_device(origin) == configuration_.device;
}

// The writer makes room for a name below a tag that the bridge has written, where it can.
Name Inbound::name_for(const Rule &rule, const std::string &topic) const
{
    Name name = to_tag_topic(rule.settings->prefix, rule.settings->tags, topic);
    if (!name.problem.empty())
        return name;
    if (tool::Pattern(configuration_.status_prefix + "/#").covers(name.text))
        return {{}, "it is the bridge's own"};
    if (tool::place_of(name.text) == tool::Place::below_a_topic &&
        !is_below_a_written_tag(name.text))
        return {{}, "a part of its name is a tag with a value"};
    return name;
}

bool Inbound::is_below_a_written_tag(const std::string &name) const
{
    for (size_t end = name.find('/'); end != name.npos; end = name.find('/', end + 1))
        for (const Rule &rule : rules_)
            if (rule.tags.contains(name.substr(0, end)))
                return true;
    return false;
}

void Inbound::take(Rule &rule, const std::string &name, const Message &message, WhenDone when_done)
{
    Sample current;
    const ReadOutcome outcome = look(name, reader_.standing_for(name), current);
    WriteRequest request;
    request.when_done = std::move(when_done);
    write(rule, name, message, outcome, current, std::move(request));
}

void Inbound::write(Rule &rule, const std::string &name, const Message &message,
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
    Taken taken;
    taken.is_own =
        !request.is_declared || (is_new ? events_.is_left(name) : rule.tags[name].is_own);
    taken.sender = origin_device(property_of(message.properties, property::kOrigin));
    taken.quality = request.sample.quality;
    request.sample.quality = taken.shown = quality_now(rule, taken);
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

bool Inbound::is_ours_alone(const Rule &rule, const std::string &name, const Sample &current) const
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
    const std::string origin = property_of(message.properties, property::kOrigin);
    return theirs != ours ? theirs < ours : origin_device(origin) < configuration_.device;
}

void Inbound::refuse(const std::string &topic, const std::string &why, const WhenDone &when_done)
{
    ++counters_.refused;
    tell(when_done, why);
    const std::string text = "the message on " + tool::escaped(topic) + " is refused: " + why;
    log_bounded(About::incoming, text);
}

} // namespace kp::mqtt
