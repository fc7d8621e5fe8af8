#include "answers/metrics.h"

#include "common/values/topic_metrics.h"

namespace kp::web {

namespace {

struct Own {
    const char *name;
    const char *type;
    const char *help;
    uint64_t value;
};

// The name of a counter's sample ends in `_total`, that of its family does not.
std::string own_text(const Own &own)
{
    const std::string name = own.name;
    const bool is_counter = std::string_view(own.type) == "counter";
    return "# HELP " + name + " " + own.help + "\n# TYPE " + name + " " + own.type + "\n" + name +
           (is_counter ? "_total " : " ") + std::to_string(own.value) + "\n";
}

std::string values_text(const std::vector<std::string> &patterns, const Board &board)
{
    tool::TopicMetrics values;
    tool::Selection selection;
    tool::Problem none; // the patterns were looked at when they were read
    if (patterns.empty() || !selection.set(patterns, {}, none))
        return {};
    for (const auto &[topic, live] : board.topics()) {
        if (!selection.covers(topic))
            continue;
        const auto snapshot = live.reader.read();
        const tool::Facts facts = board.dictionary().facts_of(topic);
        if (snapshot)
            values.take(topic, *snapshot, facts.unit ? facts.unit->value : "");
    }
    return values.text();
}

} // namespace

std::string metrics_text(const std::vector<std::string> &patterns, const Board &board,
                         const Counters &counters, uint64_t writes)
{
    std::string text = values_text(patterns, board);
    const Own all[] = {
        {"zu_kp_topics", "gauge", "Topics in the store.", board.topics().size()},
        {"zu_kp_unreadable_topics", "gauge", "Files of the store that cannot be read.",
         board.refused_count()},
        {"kp_web_connections", "gauge", "Connections that are open.", counters.connections},
        {"kp_web_streams", "gauge", "Clients that follow topics.", board.follower_count()},
        {"kp_web_requests", "counter", "Requests since the start.", counters.requests},
        {"kp_web_refused_requests", "counter", "Requests that were answered with an error.",
         counters.refused},
        {"kp_web_writes", "counter", "Values that clients have written.", writes},
        {"kp_web_turned_away", "counter", "Connections that were one too many.",
         counters.turned_away},
    };
    for (const Own &own : all)
        text += own_text(own);
    return text;
}

} // namespace kp::web
