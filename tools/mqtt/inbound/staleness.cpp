#include "inbound/staleness.h"

#include "common/names/pattern.h"

namespace kp::mqtt {

// Without an origin, as other programs send it, a state counts for all tags of the rule.
bool Staleness::hear_sender(const Message &message)
{
    const std::string sender = sender_of(message);
    const bool is_away = message.payload == kOffline;
    bool is_state = false;
    for (InboundRule &rule : rules_.all()) {
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

void Staleness::set_connected(bool is_connected)
{
    is_connected_ = is_connected;
    if (!is_connected)
        review();
}

void Staleness::review()
{
    for (InboundRule &rule : rules_.all())
        review(rule);
}

void Staleness::review(InboundRule &rule)
{
    for (auto &[name, taken] : rule.tags) {
        const uint8_t quality = quality_of(rule, taken);
        if (std::exchange(taken.shown, quality) != quality)
            set_quality_(name, quality);
    }
}

uint8_t Staleness::quality_of(const InboundRule &rule, const TakenTag &taken) const
{
    const bool is_stale =
        !is_connected_ || rule.away.contains(taken.sender) || rule.away.contains("");
    return is_stale ? rule.settings->quality_when_stale.value_or(taken.quality) : taken.quality;
}

} // namespace kp::mqtt
