#include "config/configuration.h"

#include "common/config/configuration_file.h"
#include "common/names/pattern.h"
#include "config/broker_reader.h"
#include "config/setting_values.h"
#include "names/topic_names.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <unistd.h>

namespace kp::mqtt {

namespace {

using tool::Problems;
using tool::TableReader;

constexpr double kDay = 86'400;

std::string host_name()
{
    std::array<char, 256> name{};
    (void)gethostname(name.data(), name.size() - 1);
    return name[0] ? name.data() : "device";
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
        table.read("dictionary", result.dictionary);
        table.read<std::string>("discovery", result.discovery, setting::prefix);
        const toml::table none;
        const toml::table *broker = table.table("broker");
        auto brokers = read_brokers(broker ? *broker : none, path_, result.device, problems_);
        result.broker = brokers.front();
        result.fallbacks.assign(brokers.begin() + 1, brokers.end());
        result.out = read_rules<OutRule>(table, "out", result.prefix);
        result.in = read_rules<InRule>(table, "in", result.prefix);
        table.refuse_the_rest();
        return result;
    }

  private:
    static void read_names(TableReader &table, Configuration &result)
    {
        result.device = host_name();
        table.read<std::string>("device", result.device, setting::name_part);
        result.prefix = "kp/" + result.device;
        table.read<std::string>("prefix", result.prefix, setting::prefix);
        result.endpoint = "kp-mqtt";
        table.read<std::string>("endpoint", result.endpoint, setting::endpoint_name);
        result.status_prefix = "bridge/mqtt";
        table.read<std::string>("status-prefix", result.status_prefix, setting::tag_prefix);
        if (result.status_prefix.empty())
            table.problem("status-prefix", "must not be empty");
        result.state_topic = tool::join_levels(result.prefix, "$bridge/state");
        table.read<std::string>("state-topic", result.state_topic, setting::prefix);
        if (result.state_topic.empty())
            table.problem("state-topic", "must not be empty");
    }

    template <typename Rule>
    std::vector<Rule> read_rules(TableReader &file, const char *kind,
                                 const std::string &default_prefix)
    {
        std::vector<Rule> rules;
        for (const toml::table *source : file.tables(kind)) {
            TableReader table(*source, path_, problems_);
            Rule rule;
            rule.name = "[[" + std::string(kind) + "]] " + std::to_string(rules.size() + 1) +
                        " (line " + std::to_string(source->source().begin.line) + ")";
            table.read_integer("qos", rule.qos, 0, 2);
            table.read<PayloadMode>("payload", rule.payload, setting::payload_mode);
            read_rest(table, rule, default_prefix);
            table.refuse_the_rest();
            rules.push_back(std::move(rule));
        }
        return rules;
    }

    static void read_rest(TableReader &table, OutRule &rule, const std::string &default_prefix)
    {
        read_needed(table, "pattern", rule.pattern, setting::tag_pattern);
        table.read_patterns("exclude", rule.exclude);
        rule.prefix = default_prefix;
        table.read<std::string>("prefix", rule.prefix, setting::prefix);
        table.read<std::string>("tags", rule.tags, setting::tag_prefix);
        if (!rule.tags.empty() &&
            !tool::Pattern(rule.tags + "/#").contains(tool::Pattern(rule.pattern)))
            table.problem("tags", "the pattern must begin with it, and go on behind it");
        table.read("retain", rule.retain);
        table.read("min-interval", rule.quiet.min_interval, 0, kDay);
        table.read("max-interval", rule.quiet.max_interval, 0, kDay);
        if (rule.quiet.max_interval.count() > 0 &&
            rule.quiet.max_interval < rule.quiet.min_interval)
            table.problem("max-interval", "must not be less than min-interval");
        table.read("deadband", rule.quiet.deadband, 0, 1e300);
        table.read("deadband-relative", rule.quiet.relative_deadband, 0, 1e6);
        table.read("deadband-of-range", rule.quiet.deadband_of_range, 0, 1);
        table.read("only-changes", rule.quiet.only_changes);
        table.read_integer("expiry", rule.expiry_s, 0, UINT32_MAX - 1);
    }

    static void read_rest(TableReader &table, InRule &rule, const std::string &default_prefix)
    {
        read_needed(table, "filter", rule.filter, setting::topic_filter);
        table.read("shared", rule.shared);
        rule.prefix =
            rule.shared || default_prefix.empty() ? default_prefix : default_prefix + "-set";
        table.read<std::string>("prefix", rule.prefix, setting::in_prefix);
        table.read<std::string>("tags", rule.tags, setting::tag_prefix);
        table.read<std::optional<uint32_t>>("type", rule.type, setting::value_type);
        table.read_integer("max-size", rule.max_size, 1, KP_MAX_VALUE_SIZE);
        table.read_integer("max-tags", rule.max_tags, 1, 1'000'000);
        rule.retained = rule.shared;
        table.read("retained", rule.retained);
        uint8_t quality = 0;
        table.read_integer("quality-when-stale", quality, 0, 254);
        if (table.has("quality-when-stale"))
            rule.quality_when_stale = quality;
        table.read<std::string>("sender-state", rule.sender_state, setting::plain_filter);
        table.read<std::string>("answers", rule.answers, setting::plain_filter);
        if (!rule.sender_state.empty() && !rule.quality_when_stale)
            table.problem("sender-state", "needs quality-when-stale");
    }

    static void read_needed(TableReader &table, const char *key, std::string &target,
                            tool::Result<std::string> (*parse)(const std::string &))
    {
        table.read<std::string>(key, target, parse);
        if (!table.has(key))
            table.problem(key, "is missing");
    }

    const std::string &path_;
    Problems &problems_;
};

Configuration read_configuration(const toml::table &file, const std::string &path,
                                 Problems &problems)
{
    Configuration configuration = ConfigurationReader(path, problems).read(file);
    if (!problems.empty())
        return configuration;
    for (const std::string &problem : rule_problems(configuration))
        problems.push_back(path + ": " + problem);
    return configuration;
}

} // namespace

bool OutRule::takes(std::string_view tag) const
{
    return tool::Pattern(pattern).covers(tag) &&
           std::none_of(exclude.begin(), exclude.end(), [tag](const std::string &excluded) {
               return tool::Pattern(excluded).covers(tag);
           });
}

std::string OutRule::topic_of(std::string_view tag) const
{
    return to_mqtt_topic(prefix, tags.empty() ? tag : tag.substr(tags.size() + 1));
}

bool OutRule::sends_like(const OutRule &other) const
{
    return prefix == other.prefix && tags == other.tags && qos == other.qos &&
           payload == other.payload && retain == other.retain && expiry_s == other.expiry_s;
}

std::string InRule::full_filter() const
{
    return prefix.empty() ? filter : prefix + '/' + filter;
}

std::vector<const BrokerSettings *> Configuration::brokers() const
{
    std::vector<const BrokerSettings *> all{&broker};
    for (const BrokerSettings &fallback : fallbacks)
        all.push_back(&fallback);
    return all;
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

std::string Configuration::summary() const
{
    return std::to_string(out.size()) + " rules out, " + std::to_string(in.size()) + " rules in";
}

ConfigurationResult load_configuration(const std::string &path)
{
    return tool::load_configuration(path, read_configuration);
}

ConfigurationResult parse_configuration(std::string_view text, const std::string &path)
{
    return tool::parse_configuration(text, path, read_configuration);
}

} // namespace kp::mqtt
