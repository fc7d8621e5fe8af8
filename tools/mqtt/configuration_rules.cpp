// What can be wrong between rules that are each good. A loop needs an in rule that brings back what
// an out rule sends, on the broker's side or through the tags; such a pair is refused, except where
// the in rule says that the tree is shared, and then the guards at run time stop the loop.
#include "configuration.h"
#include "topic_filter.h"
#include "topic_names.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

// Every topic that a rule can send is covered by this filter. Wildcards stay; a prefix and plain
// levels are escaped as the topics are.
std::string sent_filter(const OutRule &rule)
{
    std::string filter = rule.prefix;
    for (const std::string_view level : split_tag_levels(rule.pattern)) {
        const bool wildcard = level == "+" || level == "#";
        filter = join(filter, wildcard ? std::string(level) : to_mqtt_topic("", level));
    }
    return filter;
}

// Every tag that a rule can write is covered by this pattern.
std::string written_pattern(const InRule &rule)
{
    return join(rule.tags, rule.filter);
}

bool sends_what_is_written(const OutRule &out, const InRule &in)
{
    const std::string written = written_pattern(in);
    const bool excluded =
        std::any_of(out.exclude.begin(), out.exclude.end(), [&written](const std::string &pattern) {
            return pattern_contains(pattern, written);
        });
    return !excluded && patterns_meet(out.pattern, written);
}

void find_overlaps(const Configuration &configuration, std::vector<std::string> &faults)
{
    for (const OutRule &out : configuration.out)
        for (const InRule &in : configuration.in) {
            if (in.shared)
                continue;
            if (filters_meet(sent_filter(out), in.full_filter()))
                faults.push_back(out.name + " and " + in.name +
                                 " overlap at the broker: the first sends " + sent_filter(out) +
                                 ", the second receives " + in.full_filter() +
                                 "; keep them apart, or say shared = true in the second");
            else if (sends_what_is_written(out, in))
                faults.push_back(out.name + " and " + in.name +
                                 " overlap in the tags: the second writes " + written_pattern(in) +
                                 ", the first sends " + out.pattern +
                                 "; exclude it there, or say shared = true in the second");
        }
}

// Two tags must not become one topic, which different prefixes make possible.
void find_collisions(const Configuration &configuration, std::vector<std::string> &faults)
{
    const auto &rules = configuration.out;
    for (size_t first = 0; first < rules.size(); ++first)
        for (size_t second = first + 1; second < rules.size(); ++second)
            if (rules[first].prefix != rules[second].prefix &&
                filters_meet(sent_filter(rules[first]), sent_filter(rules[second])))
                faults.push_back(rules[first].name + " and " + rules[second].name +
                                 " can send different tags to one topic");
}

void find_state_topic(const Configuration &configuration, std::vector<std::string> &faults)
{
    for (const InRule &in : configuration.in)
        if (!in.shared && filter_covers(in.full_filter(), configuration.state_topic))
            faults.push_back(in.name + " receives the bridge's own state topic " +
                             configuration.state_topic);
}

} // namespace

std::vector<std::string> rule_faults(const Configuration &configuration)
{
    std::vector<std::string> faults;
    if (configuration.out.empty() && configuration.in.empty())
        faults.push_back("there is no [[out]] and no [[in]] rule: nothing to do");
    find_overlaps(configuration, faults);
    find_collisions(configuration, faults);
    find_state_topic(configuration, faults);
    return faults;
}

} // namespace kp::mqtt
