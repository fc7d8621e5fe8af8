#include "config/setting_values.h"

#include "common/names/pattern.h"
#include "common/text/text.h"
#include "kp.h"
#include "layout/notice.h"
#include "names/topic_names.h"

#include <algorithm>
#include <sys/un.h>

namespace kp::mqtt::setting {

namespace {

constexpr size_t kMostEndpointBytes =
    std::min(sizeof(sockaddr_un::sun_path) - std::string_view(kEndpointDirectory).size() - 1,
             size_t{KP_ENDPOINT_NAME_SIZE} - 1);

// To a broker a filter that starts like this means that several clients share its messages. The
// topics of these messages do not start so, and the bridge could not tell its own messages from
// others.
bool is_shared_subscription(const std::string &text)
{
    return text == "$share" || text.starts_with("$share/");
}

} // namespace

tool::Result<PayloadMode> payload_mode(const std::string &name)
{
    if (name == "plain")
        return tool::Result<PayloadMode>::of(PayloadMode::plain);
    if (name == "json")
        return tool::Result<PayloadMode>::of(PayloadMode::json);
    if (name == "raw")
        return tool::Result<PayloadMode>::of(PayloadMode::raw);
    return tool::Result<PayloadMode>::failed("must be \"plain\", \"json\" or \"raw\"");
}

tool::Result<std::string> prefix(const std::string &text)
{
    if (text.starts_with('/') || text.ends_with('/'))
        return tool::Result<std::string>::failed("must not begin or end with \"/\"");
    if (const std::string problem = mqtt_topic_problem(text); !problem.empty())
        return tool::Result<std::string>::failed("cannot be part of a topic: " + problem);
    return tool::Result<std::string>::of(text);
}

tool::Result<std::string> name_part(const std::string &text)
{
    if (text.empty() || text.find('/') != text.npos)
        return tool::Result<std::string>::failed("must not be empty nor have a \"/\"");
    return prefix(text);
}

tool::Result<std::string> host_alone(const std::string &text)
{
    const size_t colon = text.find(':');
    const bool has_port = colon != text.npos && text.rfind(':') == colon;
    const std::string_view alone = "must be a name or an address alone";
    if (text.empty())
        return tool::Result<std::string>::failed("must not be empty");
    if (const size_t scheme = text.find("://"); scheme != text.npos)
        return tool::Result<std::string>::failed(
            std::string(alone) + ", without \"" + text.substr(0, scheme + 3) +
            "\"; port is a setting of its own, and TLS is what a section [broker.tls] asks for");
    if (has_port && text.find('/') == text.npos)
        return tool::Result<std::string>::failed(std::string(alone) + "; say port = " +
                                                 text.substr(colon + 1) + " in a line of its own");
    if (text.find('/') != text.npos)
        return tool::Result<std::string>::failed(std::string(alone) + ", without \"/\"");
    return tool::Result<std::string>::of(text);
}

tool::Result<std::string> client_id(const std::string &text)
{
    if (text.empty() || !tool::is_utf8(text) || percent_escaped(text) != text)
        return tool::Result<std::string>::failed("must be text without control characters");
    return tool::Result<std::string>::of(text);
}

// The name is that of a socket below /run/providers/ too.
tool::Result<std::string> endpoint_name(const std::string &text)
{
    if (text == "." || text == "..")
        return tool::Result<std::string>::failed("must be the name of a file");
    if (text.size() > kMostEndpointBytes)
        return tool::Result<std::string>::failed("must not be longer than " +
                                                 std::to_string(kMostEndpointBytes) + " bytes");
    return name_part(text);
}

tool::Result<std::string> in_prefix(const std::string &text)
{
    if (is_shared_subscription(text))
        return tool::Result<std::string>::failed("shared subscriptions cannot be used");
    return prefix(text);
}

tool::Result<std::string> tag_pattern(const std::string &text)
{
    if (const std::string problem = tool::pattern_problem(text, tool::Dialect::tags);
        !problem.empty())
        return tool::Result<std::string>::failed("is no pattern of tags: " + problem);
    return tool::Result<std::string>::of(text);
}

tool::Result<std::string> tag_prefix(const std::string &text)
{
    const Name name = to_tag_topic(text);
    if (!text.empty() && !name.problem.empty())
        return tool::Result<std::string>::failed("cannot be part of a tag's topic: " +
                                                 name.problem);
    return tool::Result<std::string>::of(text);
}

tool::Result<std::string> plain_filter(const std::string &text)
{
    if (is_shared_subscription(text))
        return tool::Result<std::string>::failed("shared subscriptions cannot be used");
    if (const std::string problem = tool::pattern_problem(text, tool::Dialect::mqtt);
        !problem.empty())
        return tool::Result<std::string>::failed("is no filter of topics: " + problem);
    return tool::Result<std::string>::of(text);
}

tool::Result<std::string> topic_filter(const std::string &text)
{
    if (auto filter = plain_filter(text); !filter)
        return filter;
    for (const std::string_view level : tool::split_levels(text, tool::Dialect::mqtt)) {
        if (level == "+" || level == "#")
            continue;
        if (const std::string problem = mqtt_topic_problem(level); !problem.empty())
            return tool::Result<std::string>::failed("is no filter of topics: " + problem);
        if (const std::string problem = to_tag_topic(level).problem; !problem.empty())
            return tool::Result<std::string>::failed("takes no topic that can be a tag: " +
                                                     problem);
    }
    return tool::Result<std::string>::of(text);
}

tool::Result<std::optional<uint32_t>> value_type(const std::string &text)
{
    const uint32_t type = kp_str2type(text.c_str());
    if (type == UINT32_MAX)
        return tool::Result<std::optional<uint32_t>>::failed("is no value type, as \"double\"");
    return tool::Result<std::optional<uint32_t>>::of(type);
}

} // namespace kp::mqtt::setting
