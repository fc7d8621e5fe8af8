#include "names/topic_names.h"

#include "common/names/topic_name.h"
#include "common/text/encoding.h"
#include "common/text/text.h"

#include <algorithm>
#include <cstdint>

namespace kp::mqtt {

namespace {

constexpr std::string_view kOwnValue = "_"; // the tag a/_ is the MQTT topic a

// Characters that brokers refuse in topics although they are UTF-8.
bool is_control(char32_t code)
{
    const bool non_character = (code & 0xfffe) == 0xfffe || (code >= 0xfdd0 && code <= 0xfdef);
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || non_character;
}

void append_escaped(std::string &text, std::string_view bytes)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {'%', digits[byte >> 4], digits[byte & 15]};
    }
}

// Copies a text; escapes what `also` names besides control characters and what is not UTF-8.
std::string escape(std::string_view text, std::string_view also)
{
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const tool::CodePoint next = tool::next_code_point(text);
        const size_t bytes = next.bytes;
        if (!next.valid || is_control(next.value) || also.find(text[0]) != also.npos)
            append_escaped(escaped, text.substr(0, bytes));
        else
            escaped += text.substr(0, bytes);
        text.remove_prefix(bytes);
    }
    return escaped;
}

// Says why a level whose escapes are undone cannot be one of a tag. Only an escape brings it a "/".
std::string tag_level_problem(std::string_view level)
{
    if (level.find('/') != level.npos)
        return "a level holds an escaped \"/\"";
    if (level.starts_with('+') || level.starts_with('#'))
        return "a level starts like a wildcard";
    return tool::level_problem(level);
}

} // namespace

std::string percent_escaped(std::string_view text)
{
    return escape(text, "");
}

std::string without_escapes(std::string_view text)
{
    std::string plain;
    plain.reserve(text.size());
    while (!text.empty()) {
        const auto byte = tool::escaped_byte(text);
        plain += byte.value_or(text[0]);
        text.remove_prefix(byte ? 3 : 1);
    }
    return plain;
}

std::string to_mqtt_topic(std::string_view prefix, std::string_view tag)
{
    tool::Levels levels = tool::split_levels(tag);
    if (levels.size() > 1 && levels.back() == kOwnValue)
        levels.pop_back();
    std::string topic(prefix);
    for (size_t at = 0; at < levels.size(); ++at) {
        const bool first_dollar = at == 0 && levels[at][0] == '$';
        std::string level = first_dollar ? "%24" : "";
        level += escape(levels[at].substr(first_dollar), "%+#");
        topic = tool::join_levels(topic, level);
    }
    return topic;
}

Name to_tag_topic(std::string_view topic)
{
    Name name;
    for (const std::string_view raw : tool::split_levels(topic, tool::Dialect::mqtt)) {
        if (raw.starts_with('$'))
            return {{}, "a level starts with \"$\""};
        const std::string level = without_escapes(raw);
        if (std::string problem = tag_level_problem(level); !problem.empty())
            return {{}, std::move(problem)};
        name.text = tool::join_levels(name.text, level);
    }
    if (name.text.size() > tool::kMostTopicBytes)
        return {{}, "it is longer than 4000 bytes"};
    return name;
}

Name to_tag_topic(std::string_view mqtt_prefix, std::string_view tag_prefix, std::string_view topic)
{
    if (!mqtt_prefix.empty()) {
        if (!topic.starts_with(mqtt_prefix) || topic.substr(mqtt_prefix.size(), 1) != "/")
            return {{}, "it is outside of the prefix"};
        topic.remove_prefix(mqtt_prefix.size() + 1);
    }
    Name name = to_tag_topic(topic);
    if (tool::split_levels(tag_prefix).size() + tool::split_levels(name.text).size() > kMostLevels)
        return {{}, "it has more than " + std::to_string(kMostLevels) + " levels"};
    if (name.problem.empty())
        name.text = tool::join_levels(tag_prefix, name.text);
    return name;
}

std::string plain_name(std::string tag)
{
    while (tag.ends_with("/_"))
        tag.resize(tag.size() - 2);
    return tag;
}

std::string mqtt_topic_problem(std::string_view topic)
{
    if (topic.find_first_of("+#") != topic.npos)
        return "it has a wildcard";
    if (escape(topic, "") != topic)
        return "it has a control character or is not UTF-8";
    if (topic.size() > 1024)
        return "it is longer than 1024 bytes";
    return {};
}

} // namespace kp::mqtt
