#include "store/row_line.h"

#include "common/clock.h"
#include "common/text/encoding.h"
#include "common/text/text.h"

#include <nlohmann/json.hpp>

namespace kp::web {

namespace {

using nlohmann::ordered_json;

void add_limits(ordered_json &object, const tool::ValueLimits &limits)
{
    const auto add = [&object](const char *key, const std::optional<double> &limit) {
        if (limit)
            object[key] = *limit;
    };
    add("lowlow", limits.lowlow);
    add("low", limits.low);
    add("high", limits.high);
    add("highhigh", limits.highhigh);
}

} // namespace

ordered_json topic_json(const std::string &topic)
{
    ordered_json object;
    object["topic"] = topic;
    if (!tool::is_utf8(topic))
        object["topic_b64"] = tool::to_base64(topic);
    return object;
}

std::string row_line(const tool::Row &row, const tool::Dictionary &dictionary)
{
    ordered_json object = tool::row_json(row, tool::ByteStyle::hex);
    const tool::Facts facts = dictionary.facts_of(row.topic);
    const tool::Snapshot &snapshot = row.snapshot;
    if (!facts.is_known || snapshot.condition != tool::Condition::value)
        return tool::json_line(object);
    if (facts.unit)
        object["unit"] = facts.unit->value;
    if (const std::string *name = tool::name_of(facts, snapshot.type, snapshot.bytes))
        object["name"] = *name;
    object["state"] =
        tool::state_name(tool::state_of(facts, {snapshot.type, snapshot.bytes, snapshot.quality,
                                                snapshot.last_write_ts, tool::now_us()}));
    return tool::json_line(object);
}

std::string topic_line(const std::string &topic)
{
    return tool::json_line(topic_json(topic));
}

std::string facts_line(const std::string &topic, const tool::Dictionary &dictionary)
{
    ordered_json object = topic_json(topic);
    const tool::Facts facts = dictionary.facts_of(topic);
    if (facts.unit)
        object["unit"] = facts.unit->value;
    if (facts.description)
        object["description"] = facts.description->value;
    if (facts.range) {
        object["least"] = facts.range->value.least;
        object["most"] = facts.range->value.most;
    }
    if (facts.limits)
        add_limits(object, facts.limits->value);
    if (facts.stale_s)
        object["stale"] = facts.stale_s->value;
    if (facts.names)
        for (const auto &[number, name] : facts.names->value)
            object["names"][std::to_string(number)] = name;
    return tool::json_line(object);
}

} // namespace kp::web
