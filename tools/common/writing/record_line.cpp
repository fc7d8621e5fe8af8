#include "common/writing/record_line.h"

#include "common/names/pattern.h"
#include "common/text/encoding.h"
#include "common/text/parse_number.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "layout/value_type.h"

#include <array>
#include <ctime>
#include <limits>

namespace kp::tool {

namespace {

using nlohmann::json;

// A number of the object as far as it is there; false when it is something else.
template <typename T>
bool take_number(const json &object, const char *key, std::optional<T> &out, Problem &problem)
{
    const auto found = object.find(key);
    if (found == object.end() || found->is_null())
        return true;
    if (found->is_number_unsigned() && found->get<uint64_t>() <= std::numeric_limits<T>::max()) {
        out = static_cast<T>(found->get<uint64_t>());
        return true;
    }
    problem = {kUsage, std::string("\"") + key + "\" is not a number in its range"};
    return false;
}

bool take_text(const json &object, const char *key, std::optional<std::string> &out,
               Problem &problem)
{
    const auto found = object.find(key);
    if (found == object.end() || found->is_null())
        return true;
    if (found->is_string()) {
        out = found->get<std::string>();
        return true;
    }
    problem = {kUsage, std::string("\"") + key + "\" is not a string"};
    return false;
}

bool take_base64(const json &object, const char *key, std::optional<std::string> &out,
                 Problem &problem)
{
    std::optional<std::string> text;
    if (!take_text(object, key, text, problem))
        return false;
    if (!text)
        return true;
    out = from_base64(*text);
    if (out)
        return true;
    problem = {kUsage, std::string("\"") + key + "\" is not base64"};
    return false;
}

bool take_topic(const json &object, Write &write, Problem &problem)
{
    std::optional<std::string> topic;
    std::optional<std::string> exact;
    if (!take_text(object, "topic", topic, problem) ||
        !take_base64(object, "topic_b64", exact, problem))
        return false;
    if (exact)
        topic = exact;
    if (!topic) {
        problem = {kUsage, "\"topic\" is missing"};
        return false;
    }
    auto name = normal_topic(*topic, problem);
    if (!name)
        return false;
    write.topic = std::move(*name);
    write.spelling = std::move(*topic);
    return true;
}

bool take_type(const json &object, Write &write, Problem &problem)
{
    std::optional<std::string> name;
    if (!take_text(object, "type", name, problem))
        return false;
    if (!name)
        return true;
    write.type = kp_str2type(name->c_str());
    if (*write.type < kValueTypeCount)
        return true;
    problem = {kUsage, "\"" + escaped(*name) + "\" is not a type"};
    return false;
}

std::optional<uint64_t> parse_iso(const std::string &text)
{
    std::tm parts{};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest)
        return std::nullopt;
    uint64_t fraction = 0;
    if (*rest == '.') {
        uint64_t unit = 100'000;
        for (++rest; *rest >= '0' && *rest <= '9'; ++rest, unit /= 10)
            fraction += static_cast<uint64_t>(*rest - '0') * unit;
    }
    const std::tm given = parts;
    const time_t seconds = timegm(&parts); // moves a day that does not exist to one that does
    const bool exists = parts.tm_mday == given.tm_mday && parts.tm_mon == given.tm_mon &&
                        parts.tm_min == given.tm_min && parts.tm_sec == given.tm_sec;
    if (!exists || (*rest != '\0' && std::string_view(rest) != "Z") || seconds < 0)
        return std::nullopt;
    return static_cast<uint64_t>(seconds) * kUsPerSecond + fraction;
}

std::optional<Record> parse_object(const json &object, ByteStyle style, Problem &problem)
{
    if (!object.is_object()) {
        problem = {kUsage, "not a JSON object"};
        return std::nullopt;
    }
    Record record;
    record.style = style;
    Write &write = record.write;
    const bool good = take_topic(object, write, problem) && take_type(object, write, problem) &&
                      take_number(object, "quality", write.quality, problem) &&
                      take_number(object, "source_ts", write.source_ts, problem) &&
                      take_base64(object, "value_b64", record.bytes, problem);
    if (!good)
        return std::nullopt;
    const auto value = object.find("value");
    if (value == object.end())
        return record;
    if (value->is_structured()) { // copied or printed, a deep one would need a deep stack
        problem = {kUsage, "\"value\" is neither a number, a text, true, false nor null"};
        return std::nullopt;
    }
    record.value = *value;
    return record;
}

} // namespace

std::string stored_record(const Row &row, std::optional<uint64_t> seen)
{
    auto object = row_json(row, ByteStyle::hex);
    if (row.snapshot.condition == Condition::value)
        object["value_b64"] = to_base64(row.snapshot.bytes);
    if (seen)
        object["seen"] = *seen;
    return json_line(object);
}

std::optional<Record> parse_record(const std::string &line, ByteStyle style, Problem &problem)
{
    const json object = json::parse(line, nullptr, false);
    auto record = parse_object(object, style, problem);
    if (!record || !is_pattern(record->write.topic))
        return record;
    problem = {kUsage,
               "\"" + escaped(record->write.topic) + "\" is a pattern; a value has one topic"};
    return std::nullopt;
}

std::optional<Record> parse_record_of(const std::string &topic, const std::string &text,
                                      ByteStyle style, Problem &problem)
{
    json object = json::parse(text, nullptr, false);
    if (object.is_object() && !object.contains("topic") && !object.contains("topic_b64"))
        object["topic_b64"] = to_base64(topic);
    auto record = parse_object(object, style, problem);
    if (!record || record->write.topic == topic)
        return record;
    problem = {kUsage, "\"topic\" is " + escaped(record->write.topic) + ", not " + escaped(topic)};
    return std::nullopt;
}

std::optional<Record> parse_stored_record(const std::string &line, Problem &problem)
{
    const json object = json::parse(line, nullptr, false);
    auto record = parse_object(object, ByteStyle::hex, problem);
    if (!record || !take_number(object, "ts", record->write.timestamp, problem) ||
        !take_number(object, "max", record->write.max, problem) ||
        !take_number(object, "extra", record->write.extra, problem) ||
        !take_number(object, "seen", record->seen, problem))
        return std::nullopt;
    return record;
}

std::optional<std::string> record_bytes(const Record &record, uint32_t type, Problem &problem)
{
    if (!record.bytes && record.value.is_null()) {
        problem = {kUsage, escaped(record.write.topic) + ": \"value\" is missing"};
        return std::nullopt;
    }
    if (!record.bytes)
        return parse_json_value(type, record.value, record.style, problem);
    const bool fits = has_variable_size(type)
                          ? !record.bytes->empty() && record.bytes->size() <= KP_MAX_VALUE_SIZE
                          : record.bytes->size() == kp_get_value_size(type, 0);
    if (fits)
        return record.bytes;
    problem = {kUsage, escaped(record.write.topic) + ": " + std::to_string(record.bytes->size()) +
                           " bytes are no " + kp_type2str(type)};
    return std::nullopt;
}

std::optional<uint64_t> parse_time(const std::string &text)
{
    const auto us = parse_number<uint64_t>(text);
    return us ? us : parse_iso(text);
}

} // namespace kp::tool
