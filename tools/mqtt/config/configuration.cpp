#include "config/configuration.h"

#include "common/pattern.h"
#include "common/text.h"
#include "config/configuration_file.h"
#include "names/topic_names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace kp::mqtt {

namespace {

constexpr double kDay = 86'400;
constexpr size_t kMostEndpointBytes = std::min(
    sizeof(sockaddr_un::sun_path) - sizeof "/run/providers/", size_t{KP_ENDPOINT_NAME_SIZE} - 1);

std::string host_name()
{
    std::array<char, 256> name{};
    (void)gethostname(name.data(), name.size() - 1);
    return name[0] ? name.data() : "device";
}

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
    if (text.empty())
        return tool::Result<std::string>::failed("must not be empty");
    if (text.find('/') != text.npos || has_port)
        return tool::Result<std::string>::failed(
            "must be a name or an address alone; port and [broker.tls] are settings of their own");
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

// Brokers take a filter that starts so for one that several clients share the messages of. Their
// topics do not start so, and the bridge's own messages could not be kept from it.
tool::Result<std::string> in_prefix(const std::string &text)
{
    if (text == "$share" || text.starts_with("$share/"))
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

tool::Result<std::string> topic_filter(const std::string &text)
{
    if (text == "$share" || text.starts_with("$share/"))
        return tool::Result<std::string>::failed("shared subscriptions cannot be used");
    if (const std::string problem = tool::pattern_problem(text, tool::Dialect::mqtt);
        !problem.empty())
        return tool::Result<std::string>::failed("is no filter of topics: " + problem);
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

class ConfigurationReader {
  public:
    ConfigurationReader(const std::string &path, Problems &problems)
        : path_(path), problems_(problems)
    {
    }

    Configuration read(const toml::table &file)
    {
        TableReader table(file, path_, problems_);
        Configuration result;
        read_names(table, result);
        table.read("state-file", result.state_file);
        table.read("scan-interval", result.scan_interval, 0.1, 3600);
        table.read_integer("quality-when-gone", result.quality_when_gone, 0, 254);
        table.read("trust-visible", result.trust_visible);
        const toml::table none;
        const toml::table *broker = table.table("broker");
        result.broker = read_broker(broker ? *broker : none, result.device);
        int number = 0;
        for (const toml::table *rule : table.tables("out"))
            result.out.push_back(read_out(*rule, ++number, result.prefix));
        number = 0;
        for (const toml::table *rule : table.tables("in"))
            result.in.push_back(read_in(*rule, ++number, result.prefix));
        table.refuse_the_rest();
        return result;
    }

  private:
    static void read_names(TableReader &table, Configuration &result)
    {
        result.device = host_name();
        table.read<std::string>("device", result.device, name_part);
        result.prefix = "kp/" + result.device;
        table.read<std::string>("prefix", result.prefix, prefix);
        result.endpoint = "kp-mqtt";
        table.read<std::string>("endpoint", result.endpoint, endpoint_name);
        result.status_prefix = "bridge/mqtt";
        table.read<std::string>("status-prefix", result.status_prefix, tag_prefix);
        if (result.status_prefix.empty())
            table.problem("status-prefix", "must not be empty");
        result.state_topic = tool::join_levels(result.prefix, "$bridge/state");
        table.read<std::string>("state-topic", result.state_topic, prefix);
        if (result.state_topic.empty())
            table.problem("state-topic", "must not be empty");
    }

    BrokerSettings read_broker(const toml::table &source, const std::string &device)
    {
        TableReader table(source, path_, problems_);
        BrokerSettings broker;
        table.read<std::string>("host", broker.host, host_alone);
        broker.client_id = "kp-mqtt-" + device;
        table.read<std::string>("client-id", broker.client_id, client_id);
        table.read("credentials-file", broker.credentials_file);
        table.read_integer("keep-alive", broker.keep_alive_s, 5, 3600);
        table.read("connect-timeout", broker.connect_timeout, 1, 300);
        table.read("reconnect-min", broker.reconnect_min, 0.1, 3600);
        table.read("reconnect-max", broker.reconnect_max, 0.1, 3600);
        if (broker.reconnect_max < broker.reconnect_min)
            table.problem("reconnect-max", "must not be less than reconnect-min");
        table.read("burst-rate", broker.burst_rate, 0, 1e6);
        if (const toml::table *tls = table.table("tls"))
            broker.tls = read_tls(*tls);
        broker.port = broker.tls ? 8883 : 1883;
        table.read_integer("port", broker.port, 1, 65535);
        table.refuse_the_rest();
        return broker;
    }

    TlsSettings read_tls(const toml::table &source)
    {
        TableReader table(source, path_, problems_);
        TlsSettings tls;
        table.read("ca-file", tls.ca_file);
        table.read("ca-path", tls.ca_path);
        table.read("cert-file", tls.cert_file);
        table.read("key-file", tls.key_file);
        if (tls.ca_file.empty() && tls.ca_path.empty())
            tls.ca_path = "/etc/ssl/certs";
        if (tls.cert_file.empty() != tls.key_file.empty())
            table.problem("cert-file", "cert-file and key-file need each other");
        table.refuse_the_rest();
        return tls;
    }

    OutRule read_out(const toml::table &source, int number, const std::string &default_prefix)
    {
        TableReader table(source, path_, problems_);
        OutRule rule;
        rule.name = rule_name("out", number, source);
        table.read<std::string>("pattern", rule.pattern, tag_pattern);
        if (!table.has("pattern"))
            table.problem("pattern", "is missing");
        table.read("exclude", rule.exclude);
        for (const std::string &pattern : rule.exclude)
            if (const std::string problem = tool::pattern_problem(pattern, tool::Dialect::tags);
                !problem.empty())
                table.problem("exclude", "\"" + pattern + "\" is no pattern of tags: " + problem);
        rule.prefix = default_prefix;
        table.read<std::string>("prefix", rule.prefix, prefix);
        table.read_integer("qos", rule.qos, 0, 2);
        table.read("retain", rule.retain);
        table.read<PayloadMode>("payload", rule.payload, payload_mode);
        table.read("min-interval", rule.quiet.min_interval, 0, kDay);
        table.read("deadband", rule.quiet.deadband, 0, 1e300);
        table.read("deadband-relative", rule.quiet.relative_deadband, 0, 1e6);
        table.read("only-changes", rule.quiet.only_changes);
        table.read_integer("expiry", rule.expiry_s, 0, UINT32_MAX - 1);
        table.refuse_the_rest();
        return rule;
    }

    InRule read_in(const toml::table &source, int number, const std::string &default_prefix)
    {
        TableReader table(source, path_, problems_);
        InRule rule;
        rule.name = rule_name("in", number, source);
        table.read<std::string>("filter", rule.filter, topic_filter);
        if (!table.has("filter"))
            table.problem("filter", "is missing");
        table.read("shared", rule.shared);
        rule.prefix =
            rule.shared || default_prefix.empty() ? default_prefix : default_prefix + "-set";
        table.read<std::string>("prefix", rule.prefix, in_prefix);
        table.read<std::string>("tags", rule.tags, tag_prefix);
        table.read_integer("qos", rule.qos, 0, 2);
        table.read<PayloadMode>("payload", rule.payload, payload_mode);
        table.read<std::optional<uint32_t>>("type", rule.type, value_type);
        table.read_integer("max-size", rule.max_size, 1, KP_MAX_VALUE_SIZE);
        table.read_integer("max-tags", rule.max_tags, 1, 1'000'000);
        rule.retained = rule.shared;
        table.read("retained", rule.retained);
        table.refuse_the_rest();
        return rule;
    }

    static std::string rule_name(const char *kind, int number, const toml::table &source)
    {
        return "[[" + std::string(kind) + "]] " + std::to_string(number) + " (line " +
               std::to_string(source.source().begin.line) + ")";
    }

    const std::string &path_;
    Problems &problems_;
};

ConfigurationResult finish(const toml::table &file, const std::string &path)
{
    ConfigurationResult result;
    result.configuration = ConfigurationReader(path, result.problems).read(file);
    if (!result.problems.empty())
        return result;
    for (const std::string &problem : rule_problems(result.configuration))
        result.problems.push_back(path + ": " + problem);
    return result;
}

ConfigurationResult unreadable(const toml::parse_error &error, const std::string &path)
{
    return {{},
            {path + ":" + std::to_string(error.source().begin.line) + ": " +
             std::string(error.description())}};
}

} // namespace

bool OutRule::takes(std::string_view tag) const
{
    return tool::Pattern(pattern).covers(tag) &&
           std::none_of(exclude.begin(), exclude.end(), [tag](const std::string &excluded) {
               return tool::Pattern(excluded).covers(tag);
           });
}

std::string InRule::full_filter() const
{
    return prefix.empty() ? filter : prefix + '/' + filter;
}

const OutRule *Configuration::rule_for(std::string_view tag) const
{
    if (tool::Pattern(status_prefix + "/#").covers(tag))
        return nullptr;
    const auto rule = std::find_if(
        out.begin(), out.end(), [tag](const OutRule &candidate) { return candidate.takes(tag); });
    return rule == out.end() ? nullptr : &*rule;
}

const InRule *Configuration::in_rule_for(std::string_view topic) const
{
    const InRule *best = nullptr;
    for (const InRule &rule : in)
        if (tool::Pattern(rule.full_filter(), tool::Dialect::mqtt).covers(topic) &&
            (!best ||
             tool::Pattern(rule.full_filter(), tool::Dialect::mqtt)
                 .is_more_exact_than(tool::Pattern(best->full_filter(), tool::Dialect::mqtt))))
            best = &rule;
    return best;
}

bool Configuration::shares(std::string_view topic) const
{
    return std::any_of(in.begin(), in.end(), [topic](const InRule &rule) {
        return rule.shared && rule.retained &&
               tool::Pattern(rule.full_filter(), tool::Dialect::mqtt).covers(topic);
    });
}

ConfigurationResult load_configuration(const std::string &path)
{
    struct stat status {};
    std::ifstream file(path);
    if (!file || stat(path.c_str(), &status) != 0)
        return {{}, {path + ": " + std::strerror(errno)}};
    if (S_ISDIR(status.st_mode))
        return {{}, {path + ": " + std::strerror(EISDIR)}};
    return parse_configuration(std::string{std::istreambuf_iterator<char>(file), {}}, path);
}

ConfigurationResult parse_configuration(std::string_view text, const std::string &path)
{
    try {
        return finish(toml::parse(text), path);
    } catch (const toml::parse_error &error) {
        return unreadable(error, path);
    }
}

} // namespace kp::mqtt
