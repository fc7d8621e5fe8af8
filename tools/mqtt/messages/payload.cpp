#include "messages/payload.h"

#include "common/text/encoding.h"
#include "common/text/parse_number.h"
#include "common/text/text.h"
#include "common/values/value_text.h"
#include "names/topic_names.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace kp::mqtt {

namespace {

using nlohmann::json;

constexpr uint8_t kKeptQuality = 255;
constexpr const char *kText = "text/plain";
constexpr const char *kBytes = "application/octet-stream";

std::string dump(const json &document)
{
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Numbers keep their shortest text, so that a float does not grow digits as a double; not-a-number
// and the infinities, which JSON lacks, become strings.
std::string bare_or_quoted(const Sample &sample)
{
    const std::string text = tool::plain_text(sample.type, sample.value);
    const bool finite = !tool::is_floating_type(sample.type) ||
                        std::isfinite(tool::as_double(sample.type, sample.value));
    const bool bare = !has_variable_size(sample.type) && !text.empty() && finite;
    return bare ? text : dump(text);
}

std::string json_object(std::string_view topic, const Sample &sample, uint8_t quality,
                        std::string_view unit)
{
    std::string object = "{\"topic\":" + dump(percent_escaped(topic));
    const char *type = kp_type2str(sample.type);
    object += ",\"type\":" + dump(type ? type : "unknown");
    const bool textual = !has_variable_size(sample.type) ||
                         (sample.type == KP_TYPE_STRING && tool::is_utf8(sample.value));
    if (textual || sample.type == KP_TYPE_STRING)
        object += ",\"value\":" + bare_or_quoted(sample);
    if (!textual)
        object += ",\"value_b64\":\"" + tool::to_base64(sample.value) + '"';
    object += ",\"quality\":" + std::to_string(quality);
    object += ",\"ts\":" + std::to_string(sample.ts);
    object += ",\"source_ts\":" + std::to_string(sample.source_ts);
    object += ",\"size\":" + std::to_string(sample.value.size());
    object += ",\"extra\":" + std::to_string(sample.extra_info);
    if (!unit.empty())
        object += ",\"unit\":" + dump(unit);
    return object + '}';
}

std::optional<uint32_t> known_type(const std::string &name)
{
    const uint32_t type = kp_str2type(name.c_str());
    return type == UINT32_MAX ? std::nullopt : std::optional(type);
}

std::string scalar_text(const json &value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// What a message may say; 255 means to the store that the quality stays.
void take_quality(Description &description, std::string_view text)
{
    description.quality = tool::parse_number<uint8_t>(text);
    if (!description.quality || *description.quality == kKeptQuality)
        description.problem = "its quality is no number from 0 to 254";
}

// Some JSON writers give every number a fraction. Beyond this bound a double cannot tell whole
// numbers apart.
std::string integer_text(const json &value)
{
    constexpr double most = 1LL << 53;
    if (!value.is_number_float())
        return {};
    const auto number = value.get<double>();
    const bool whole = std::abs(number) < most && std::trunc(number) == number;
    return whole ? std::to_string(static_cast<int64_t>(number)) : std::string();
}

Content scalar(const json &value)
{
    return {scalar_text(value), false, integer_text(value)};
}

void complete(Description &description, const json &object)
{
    const auto field = [&object](const char *name) { return object.find(name); };
    if (const auto type = field("type"); type != object.end() && type->is_string())
        description.type = known_type(type->get<std::string>());
    if (const auto quality = field("quality"); quality != object.end())
        take_quality(description, scalar(*quality).whole_or_text());
    if (const auto time = field("source_ts"); time != object.end())
        description.source_ts = tool::parse_number<uint64_t>(scalar(*time).whole_or_text());
    if (const auto extra = field("extra"); extra != object.end())
        description.extra_info = tool::parse_number<uint32_t>(scalar(*extra).whole_or_text());
}

tool::Result<Content> from_json(std::string_view payload, Description &description)
{
    const json document = json::parse(payload, nullptr, false);
    if (document.is_discarded())
        return tool::Result<Content>::failed("it is no JSON");
    if (document.is_primitive() && !document.is_null())
        return tool::Result<Content>::of(scalar(document));
    if (!document.is_object())
        return tool::Result<Content>::failed("it is no JSON object or scalar");
    complete(description, document);
    if (const auto bytes = document.find("value_b64"); bytes != document.end()) {
        auto decoded = tool::from_base64(bytes->is_string() ? bytes->get<std::string>() : "=");
        if (!decoded)
            return tool::Result<Content>::failed("it is no base64");
        return tool::Result<Content>::of({std::move(*decoded), true, {}});
    }
    const auto value = document.find("value");
    if (value == document.end() || !value->is_primitive() || value->is_null())
        return tool::Result<Content>::failed("the JSON object has no \"value\"");
    return tool::Result<Content>::of(scalar(*value));
}

} // namespace

Payload make_payload(PayloadMode mode, std::string_view topic, const Sample &sample,
                     uint8_t quality, std::string_view unit)
{
    switch (mode) {
    case PayloadMode::json:
        return {json_object(topic, sample, quality, unit), kJson, true};
    case PayloadMode::raw:
        return {sample.value, kBytes, false};
    case PayloadMode::plain:
        break;
    }
    const bool opaque = sample.type == KP_TYPE_BYTEARRAY || sample.type == KP_TYPE_RAW;
    std::string text = tool::plain_text(sample.type, sample.value);
    const bool readable = !opaque && tool::is_utf8(text);
    return {std::move(text), readable ? kText : kBytes, readable};
}

UserProperties describing_properties(const Sample &sample, uint8_t quality)
{
    const char *type = kp_type2str(sample.type);
    return {{property::kQuality, std::to_string(quality)},
            {property::kSourceTime, std::to_string(sample.source_ts)},
            {property::kWriteTime, std::to_string(sample.ts)},
            {property::kType, type ? type : "unknown"},
            {property::kExtraInfo, std::to_string(sample.extra_info)}};
}

Description describe(const UserProperties &properties)
{
    Description description;
    for (const auto &[name, value] : properties) {
        if (name == property::kType)
            description.type = known_type(value);
        else if (name == property::kQuality)
            take_quality(description, value);
        else if (name == property::kSourceTime)
            description.source_ts = tool::parse_number<uint64_t>(value);
        else if (name == property::kExtraInfo)
            description.extra_info = tool::parse_number<uint32_t>(value);
    }
    return description;
}

tool::Result<Content> take_apart(PayloadMode mode, std::string_view payload,
                                 Description &description)
{
    if (mode == PayloadMode::json)
        return from_json(payload, description);
    return tool::Result<Content>::of({std::string(payload), mode == PayloadMode::raw, {}});
}

} // namespace kp::mqtt
