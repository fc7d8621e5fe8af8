// What can be wrong between rules of which each is good by itself. In a loop, an in rule brings
// back what an out rule sends, on the broker's side or through the tags. Such a pair is refused,
// unless the in rule says that the tree is shared; then the checks at run time stop the loop.
#include "common/names/pattern.h"
#include "config/configuration.h"
#include "names/topic_names.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

using Names = std::vector<std::string>;

// A plain level as to_mqtt_topic() escapes it in the midst of others.
std::string escaped_level(std::string_view level, bool is_first)
{
    const std::string before = is_first ? "" : "x/";
    const std::string topic = to_mqtt_topic("", before + std::string(level) + "/x");
    return topic.substr(before.size(), topic.size() - before.size() - 2);
}

std::string sent_filter(const std::string &prefix, const tool::Levels &levels)
{
    std::string filter = prefix;
    for (size_t at = 0; at < levels.size(); ++at) {
        const bool wildcard = levels[at] == "+" || levels[at] == "#";
        filter = tool::join_levels(filter, wildcard ? std::string(levels[at])
                                                    : escaped_level(levels[at], at == 0));
    }
    return filter;
}

std::string written_pattern(const std::string &prefix, const tool::Levels &levels)
{
    std::string pattern = prefix;
    for (const std::string_view level : levels)
        pattern = tool::join_levels(pattern, without_escapes(level));
    return pattern;
}

std::ptrdiff_t levels_of(const std::string &tags)
{
    return tags.empty() ? 0 : std::ranges::count(tags, '/') + 1;
}

// Every topic that a rule can send is covered by one of these filters. Wildcards stay; a prefix and
// plain levels are escaped as the topics are. The tag `a/_` is sent as `a`, so `a/+` sends the
// topic `a`, too.
Names sent_filters(const OutRule &rule)
{
    tool::Levels levels = tool::split_levels(rule.pattern);
    levels.erase(levels.begin(), levels.begin() + levels_of(rule.tags));
    Names filters;
    const bool stands_for_parent = levels.size() > 1 && levels.back() == "_";
    if (!stands_for_parent)
        filters.push_back(sent_filter(rule.prefix, levels));
    if (stands_for_parent || (levels.size() > 1 && levels.back() == "+")) {
        levels.pop_back();
        filters.push_back(sent_filter(rule.prefix, levels));
    }
    return filters;
}

// Every tag that a rule can write is covered by one of these patterns. The filter `a/#` takes the
// topic `a`, too, which the pattern does not, and any value may be stored at the level "_".
Names written_patterns(const InRule &rule)
{
    tool::Levels levels = tool::split_levels(rule.filter, tool::Dialect::mqtt);
    const std::string whole = written_pattern(rule.tags, levels);
    if (levels.back() != "#")
        return {whole, tool::join_levels(whole, "_")};
    levels.pop_back();
    return levels.empty() ? Names{whole} : Names{whole, written_pattern(rule.tags, levels)};
}

// Gives a filter of topics that the first rule sends and the second receives, or null.
const std::string *meeting_at_the_broker(const Names &sent, const std::string &received)
{
    const auto found = std::find_if(sent.begin(), sent.end(), [&received](const auto &filter) {
        return tool::Pattern(filter, tool::Dialect::mqtt)
            .meets(tool::Pattern(received, tool::Dialect::mqtt));
    });
    return found == sent.end() ? nullptr : &*found;
}

// Gives a pattern of written tags that the out rule takes, or null.
const std::string *meeting_in_the_tags(const OutRule &out, const Names &written)
{
    const auto is_sent = [&out](const std::string &pattern) {
        return tool::Pattern(out.pattern).meets(tool::Pattern(pattern)) &&
               std::none_of(out.exclude.begin(), out.exclude.end(),
                            [&pattern](const auto &excluded) {
                                return tool::Pattern(excluded).contains(tool::Pattern(pattern));
                            });
    };
    const auto found = std::find_if(written.begin(), written.end(), is_sent);
    return found == written.end() ? nullptr : &*found;
}

std::string overlap(const OutRule &out, const InRule &in)
{
    const Names sent = sent_filters(out);
    if (const std::string *filter = meeting_at_the_broker(sent, in.full_filter()))
        return out.name + " and " + in.name + " overlap at the broker: the first sends " + *filter +
               ", the second receives " + in.full_filter() +
               "; keep them apart, or say shared = true in the second";
    const Names written = written_patterns(in);
    if (const std::string *pattern = meeting_in_the_tags(out, written))
        return out.name + " and " + in.name + " overlap in the tags: the second writes " +
               *pattern + ", the first sends " + out.pattern +
               "; exclude it there, or say shared = true in the second";
    return {};
}

void find_overlaps(const Configuration &configuration, Names &problems)
{
    for (const OutRule &out : configuration.out)
        for (const InRule &in : configuration.in)
            if (std::string problem = in.shared ? "" : overlap(out, in); !problem.empty())
                problems.push_back(std::move(problem));
}

bool can_send_one_topic(const OutRule &first, const OutRule &second)
{
    const Names sent = sent_filters(second);
    const Names others = sent_filters(first);
    return std::any_of(others.begin(), others.end(), [&sent](const std::string &filter) {
        return meeting_at_the_broker(sent, filter) != nullptr;
    });
}

// Whether both rules send a tag that both take to the same topic.
bool name_alike(const OutRule &first, const OutRule &second)
{
    return first.prefix == second.prefix && first.tags == second.tags;
}

// Two tags must not become one topic, which different prefixes make possible.
void find_collisions(const Configuration &configuration, Names &problems)
{
    const auto &rules = configuration.out;
    for (size_t first = 0; first < rules.size(); ++first)
        for (size_t second = first + 1; second < rules.size(); ++second)
            if (!name_alike(rules[first], rules[second]) &&
                can_send_one_topic(rules[first], rules[second]))
                problems.push_back(rules[first].name + " and " + rules[second].name +
                                   " can send different tags to one topic");
}

// The first out rule that takes a tag decides.
void find_out_rules_that_lose(const Configuration &configuration, Names &problems)
{
    const auto &rules = configuration.out;
    for (size_t second = 1; second < rules.size(); ++second) {
        const tool::Pattern pattern(rules[second].pattern);
        const auto takes_all = [&pattern](const OutRule &first) {
            return tool::Pattern(first.pattern).contains(pattern) &&
                   std::ranges::none_of(first.exclude, [&pattern](const std::string &excluded) {
                       return tool::Pattern(excluded).meets(pattern);
                   });
        };
        const auto end = rules.begin() + static_cast<std::ptrdiff_t>(second);
        if (const auto first = std::find_if(rules.begin(), end, takes_all); first != end)
            problems.push_back(rules[second].name + " can never win: " + first->name +
                               " comes before it and takes all of its tags");
    }
}

// The most specific in rule wins, also for retained messages that another rule asked for.
void find_in_rules_that_lose(const Configuration &configuration, Names &problems)
{
    const auto &rules = configuration.in;
    for (size_t first = 0; first < rules.size(); ++first)
        for (size_t second = first + 1; second < rules.size(); ++second) {
            const std::string text = rules[first].full_filter();
            const tool::Pattern one(text, tool::Dialect::mqtt);
            const tool::Pattern other(rules[second].full_filter(), tool::Dialect::mqtt);
            const std::string both = rules[first].name + " and " + rules[second].name;
            if (text == rules[second].full_filter())
                problems.push_back(both + " have the same filter " + text +
                                   ": the second can never win");
            else if (one.meets(other) && rules[first].retained != rules[second].retained &&
                     rules[one.is_more_exact_than(other) ? second : first].retained)
                problems.push_back(both + " both take some topics: the more exact says retained = "
                                          "false, but would be given what the broker has kept for "
                                          "the other");
        }
}

bool sends_tag(const Configuration &configuration, const OutRule &rule, const std::string &tag,
               const std::string &topic)
{
    return rule.takes(tag) && !tool::Pattern(configuration.status_prefix + "/#").covers(tag) &&
           rule.topic_of(tag) == topic;
}

// The value of a tag in place of "online" would make the device look gone, or the other way round.
void find_state_topic(const Configuration &configuration, Names &problems)
{
    const std::string &topic = configuration.state_topic;
    for (const InRule &in : configuration.in)
        if (!in.shared && tool::Pattern(in.full_filter(), tool::Dialect::mqtt).covers(topic))
            problems.push_back(in.name + " receives the bridge's own state topic " + topic);
    for (const OutRule &out : configuration.out) {
        const size_t below = out.prefix.empty() ? 0 : out.prefix.size() + 1;
        const std::string tag = tool::join_levels(
            out.tags, without_escapes(topic.substr(std::min(below, topic.size()))));
        if (sends_tag(configuration, out, tag, topic) ||
            sends_tag(configuration, out, tool::join_levels(tag, "_"), topic))
            problems.push_back(out.name + " can send a tag to the bridge's own state topic " +
                               topic);
    }
}

bool lies_below(std::string_view topic, std::string_view prefix)
{
    return prefix.empty() || topic == prefix ||
           (topic.starts_with(prefix) && topic[prefix.size()] == '/');
}

bool can_send_below(const OutRule &rule, const std::string &topic)
{
    if (lies_below(rule.prefix, topic))
        return true;
    if (!lies_below(topic, rule.prefix))
        return false;
    const std::string tag = tool::join_levels(
        rule.tags, without_escapes(topic.substr(rule.prefix.empty() ? 0 : rule.prefix.size() + 1)));
    return meeting_in_the_tags(rule, {tag, tag + "/#"}) != nullptr;
}

// What is announced to Home Assistant is no tag on its way back, and no tag takes its place.
tool::Pattern announcements(const Configuration &configuration)
{
    return tool::Pattern(configuration.discovery + "/+/+/+/config", tool::Dialect::mqtt);
}

void find_discovery(const Configuration &configuration, Names &problems)
{
    const std::string &discovery = configuration.discovery;
    if (discovery.empty())
        return;
    const tool::Pattern announced = announcements(configuration);
    for (const InRule &in : configuration.in)
        if (tool::Pattern(in.full_filter(), tool::Dialect::mqtt).meets(announced))
            problems.push_back(in.name + " receives what is announced below " + discovery);
    for (const OutRule &out : configuration.out)
        if (can_send_below(out, discovery))
            problems.push_back(out.name + " can send a tag to a topic below " + discovery +
                               ", where tags are announced");
}

// What a broker keeps for the bridge comes in the order of its queue. The bridge's own state of a
// delivery at QoS 2 does not outlive a connection, and a shared tree is read anew at each.
void find_what_no_session_can_keep(const Configuration &configuration, Names &problems)
{
    if (configuration.broker.session_expiry_s == 0)
        return;
    const std::string text = " cannot go with session-expiry: ";
    const auto check = [&](const RuleSettings &rule) {
        if (rule.qos == 2)
            problems.push_back(rule.name + ": qos = 2" + text +
                               "each connection begins without what was half done; say qos = 1");
    };
    std::ranges::for_each(configuration.out, check);
    std::ranges::for_each(configuration.in, check);
    for (const InRule &in : configuration.in)
        if (in.shared)
            problems.push_back(in.name + ": shared = true" + text +
                               "older messages that waited would come after what the tree holds");
}

// Where an answer could go that this bridge sends or receives itself, or an empty text.
std::string meeting_of_answers(const Configuration &configuration, const std::string &answers)
{
    const tool::Pattern filter(answers, tool::Dialect::mqtt);
    if (filter.covers(configuration.state_topic))
        return "the bridge says its state";
    if (!configuration.discovery.empty() && filter.meets(announcements(configuration)))
        return "tags are announced";
    for (const OutRule &out : configuration.out)
        if (meeting_at_the_broker(sent_filters(out), answers))
            return out.name + " sends values";
    for (const InRule &in : configuration.in)
        for (const std::string &received : {in.full_filter(), in.sender_state})
            if (!received.empty() && filter.meets(tool::Pattern(received, tool::Dialect::mqtt)))
                return in.name + " receives messages";
    return {};
}

void find_loops_of_answers(const Configuration &configuration, Names &problems)
{
    for (const InRule &in : configuration.in)
        if (const std::string meeting =
                in.answers.empty() ? "" : meeting_of_answers(configuration, in.answers);
            !meeting.empty())
            problems.push_back(in.name + ": answers = \"" + in.answers + "\" takes topics where " +
                               meeting + "; answers need topics of their own");
}

} // namespace

std::vector<std::string> rule_problems(const Configuration &configuration)
{
    std::vector<std::string> problems;
    if (configuration.out.empty() && configuration.in.empty())
        problems.push_back("there is no [[out]] and no [[in]] rule: nothing to do");
    find_overlaps(configuration, problems);
    find_collisions(configuration, problems);
    find_out_rules_that_lose(configuration, problems);
    find_in_rules_that_lose(configuration, problems);
    find_state_topic(configuration, problems);
    find_discovery(configuration, problems);
    find_what_no_session_can_keep(configuration, problems);
    find_loops_of_answers(configuration, problems);
    return problems;
}

} // namespace kp::mqtt
