#include "common/values/row_json.h"

#include "common/text/encoding.h"
#include "common/text/text.h"
#include "common/values/time_text.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

using nlohmann::ordered_json;

namespace {

std::vector<std::string> flag_names(const Snapshot &snapshot)
{
    std::vector<std::string> names;
    if (snapshot.flags & kValid)
        names.emplace_back("valid");
    if (snapshot.flags & kHasValue)
        names.emplace_back("value");
    if (snapshot.writing == 1)
        names.emplace_back("writing");
    return names;
}

} // namespace

nlohmann::ordered_json row_json(const Row &row, ByteStyle style)
{
    const Snapshot &snapshot = row.snapshot;
    const bool declared = snapshot.flags & kValid;
    const bool shown = snapshot.condition == Condition::value;
    ordered_json object;
    object["topic"] = row.topic;
    object["type"] = snapshot.type_name() ? ordered_json(snapshot.type_name()) : ordered_json();
    object["value"] = shown ? value_json(snapshot.type, snapshot.bytes, style) : ordered_json();
    object["quality"] = snapshot.quality;
    object["ts"] = snapshot.last_write_ts;
    object["time"] = iso_utc(snapshot.last_write_ts);
    object["source_ts"] = snapshot.source_ts;
    object["size"] = declared ? snapshot.size : 0;
    object["max"] = declared ? snapshot.max : 0;
    object["extra"] = declared ? snapshot.extra : 0;
    object["flags"] = flag_names(snapshot);
    object["providers"] = snapshot.providers;
    object["consumers"] = snapshot.consumers;
    if (shown && is_text_type(snapshot.type) && !is_utf8(snapshot.bytes))
        object["value_b64"] = to_base64(snapshot.bytes);
    if (!is_utf8(row.topic))
        object["topic_b64"] = to_base64(row.topic);
    if (snapshot.has_broken_value())
        object["problem"] = value_problem(row.topic, snapshot).text;
    return object;
}

std::string json_line(const nlohmann::ordered_json &object)
{
    return object.dump(-1, ' ', true, ordered_json::error_handler_t::replace) + '\n';
}

} // namespace kp::tool
