#include "inbound/inbound.h"

#include "names/topic_names.h"
#include "topic_filter.h"
#include "value_text.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kp::mqtt {

namespace {

constexpr int kMostReads = 10; // of a tag in the middle of a write

ReadOutcome read_patiently(const StoreReader &reader, const std::string &tag, Sample &sample)
{
    ReadOutcome outcome = reader.read(tag, sample);
    for (int reads = 1; reads < kMostReads && outcome == ReadOutcome::busy; ++reads) {
        std::this_thread::sleep_for(std::chrono::microseconds(100)); // a write takes far less
        outcome = reader.read(tag, sample);
    }
    return outcome;
}

// The bytes of a value of the sample's type.
Result<std::string> bytes_for(const Sample &sample, const Content &content)
{
    if (content.is_bytes)
        return checked_bytes(sample.type, sample.max_size, content.data);
    const bool is_integer = is_number(sample.type) && !is_floating(sample.type);
    return value_bytes(sample.type, sample.max_size,
                       is_integer ? content.whole_or_text() : content.data);
}

} // namespace

std::string_view origin_device(std::string_view origin)
{
    return origin.substr(0, origin.find('/'));
}

Inbound::Inbound(const Configuration &configuration, const StoreReader &reader,
                 InboundEvents events, Counters &counters)
    : configuration_(configuration), reader_(reader), events_(std::move(events)),
      counters_(counters)
{
    for (const InRule &rule : configuration.in)
        rules_.push_back({&rule, {}});
}

std::vector<Subscription> Inbound::subscriptions() const
{
    std::vector<Subscription> subscriptions;
    for (const Rule &rule : rules_)
        subscriptions.push_back(
            {rule.settings->full_filter(), rule.settings->qos, rule.settings->retained});
    return subscriptions;
}

void Inbound::receive(const Message &message)
{
    Rule *rule = rule_for(message.topic);
    if (!rule)
        return; // of a subscription that is just being cancelled
    if (is_own(message)) {
        ++counters_.echoes;
        return;
    }
    const Name name = name_for(*rule, message.topic);
    if (!name.problem.empty())
        return refuse(message.topic, "cannot be a tag: " + name.problem);
    if (message.payload.size() > kMostPayloadBytes)
        return refuse(message.topic, "it has " + std::to_string(message.payload.size()) +
                                         " bytes, more than any value can need");
    if (!message.payload.empty())
        return take(*rule, name.text, message);
    if (rule->settings->shared)
        take_clearing(*rule, name.text);
}

// An empty message clears a retained one. In a shared tree the bridge's own tag goes with it; what
// others here provide or have written stays, and the broker is to have it again.
void Inbound::take_clearing(Rule &rule, const std::string &name)
{
    const auto written = rule.tags.find(name);
    const bool own = written != rule.tags.end() && written->second;
    const std::string tag = reader_.standing_for(name);
    Sample sample;
    const bool lives = read_patiently(reader_, tag, sample) == ReadOutcome::read &&
                       sample.has_value && (!own || sample.providers > 1);
    if (own)
        events_.drop(name);
    if (written != rule.tags.end())
        rule.tags.erase(written);
    if (lives)
        events_.cleared(tag);
}

// The most exact of the rules that take a topic.
Inbound::Rule *Inbound::rule_for(const std::string &topic)
{
    Rule *best = nullptr;
    for (Rule &rule : rules_)
        if (filter_covers(rule.settings->full_filter(), topic) &&
            (!best || is_more_exact(rule.settings->full_filter(), best->settings->full_filter())))
            best = &rule;
    return best;
}

// Whatever the boot: what the broker kept from before a restart is an echo too.
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
    if (pattern_covers(configuration_.status_prefix + "/#", name.text))
        return {{}, "it is the bridge's own"};
    if (reader_.place(name.text) == StoreReader::Place::below_a_topic &&
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

void Inbound::take(Rule &rule, const std::string &name, const Message &message)
{
    const bool is_new = !rule.tags.contains(name);
    if (is_new && rule.tags.size() >= rule.settings->max_tags)
        return refuse(message.topic, "the rule has written max-tags tags already");
    const std::string tag = reader_.standing_for(name);
    Sample current;
    const ReadOutcome outcome =
        events_.is_dropping(name) ? ReadOutcome::missing : read_patiently(reader_, tag, current);
    WriteRequest request;
    if (const std::string problem = convert(*rule.settings, message, outcome, current, request);
        !problem.empty())
        return refuse(message.topic, problem);
    if (outcome == ReadOutcome::read && current.has_value &&
        is_superfluous(*rule.settings, tag, current, request.sample))
        return;
    rule.tags.try_emplace(name, !request.is_declared);
    request.messages = 1;
    events_.put(name, std::move(request));
}

// Returns what is wrong, or an empty text.
std::string Inbound::convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                             const Sample &current, WriteRequest &request) const
{
    if (outcome == ReadOutcome::busy)
        return "another write to the tag does not end";
    if (outcome == ReadOutcome::refused)
        return "the tag cannot be read: no rights, or not a valid segment";
    Description description = describe(message.properties);
    auto content = take_apart(rule.payload, message.payload, description);
    if (!content)
        return content.problem;
    if (!description.problem.empty())
        return description.problem;
    Sample &sample = request.sample;
    request.is_declared = outcome == ReadOutcome::read;
    sample.type = request.is_declared
                      ? current.type
                      : rule.type.value_or(description.type.value_or(KP_TYPE_STRING));
    sample.max_size = current.max_size;
    sample.extra_info =
        request.is_declared ? current.extra_info : description.extra_info.value_or(0);
    if (!request.is_declared || (has_variable_size(sample.type) && sample.max_size == 0))
        sample.max_size = rule.max_size;
    auto bytes = bytes_for(sample, *content.value);
    if (!bytes)
        return "is no " + std::string(kp_type2str(sample.type)) + " for the tag: " + bytes.problem;
    sample.value = std::move(*bytes.value);
    sample.has_value = true;
    sample.quality = description.quality.value_or(KP_QUALITY_GOOD);
    sample.source_ts = description.source_ts.value_or(kp_get_timestamp_us());
    return {};
}

// In a shared tree a value can be one that the tag has already, or older than the tag's.
bool Inbound::is_superfluous(const InRule &rule, const std::string &tag, const Sample &current,
                             const Sample &wanted) const
{
    if (!rule.shared)
        return false;
    const bool same = wanted.value == current.value && wanted.source_ts == current.source_ts &&
                      wanted.quality == current.quality;
    const bool older = wanted.source_ts < current.source_ts;
    if (older)
        events_.older_arrived(tag);
    counters_.echoes += same || older;
    return same || older;
}

void Inbound::refuse(const std::string &topic, const std::string &why)
{
    ++counters_.refused;
    const std::string text = "the message on " + printable(topic) + " is refused: " + why;
    if (said_.is_new(text))
        log(Level::warning, text);
}

} // namespace kp::mqtt
