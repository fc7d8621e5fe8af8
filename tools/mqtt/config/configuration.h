// What the configuration file says, with every default filled in.
#pragma once

#include "common/config/configured.h"
#include "config/broker_settings.h"
#include "config/rule_settings.h"
#include "kp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kp::mqtt {

// What the rules of both directions have.
struct RuleSettings {
    std::string name; // "[[out]] 2 (line 14)", for messages
    std::string prefix;
    int qos = 1;
    PayloadMode payload = PayloadMode::plain;
};

// Tags to the broker.
struct OutRule : RuleSettings {
    std::string pattern;
    std::string tags; // what the pattern begins with and the topics leave out
    std::vector<std::string> exclude;
    bool retain = true;
    Quiet quiet;
    uint32_t expiry_s = 0; // 0: the broker keeps the value for ever

    bool takes(std::string_view tag) const;

    // The topic of a tag that the rule takes.
    std::string topic_of(std::string_view tag) const;

    // Says whether both rules make the same messages.
    bool sends_like(const OutRule &other) const;
};

// The broker to tags.
struct InRule : RuleSettings {
    std::string filter;           // below the prefix
    std::string tags;             // put in front of the tag
    std::optional<uint32_t> type; // of new tags, where the message does not say
    uint32_t max_size = KP_MAX_VALUE_SIZE;
    bool retained = false; // take what the broker kept from before
    bool shared = false; // an out rule may have the same topics: one tree, written from both sides
    uint32_t max_tags = 1000;
    std::optional<uint8_t> quality_when_stale; // of values whose sender or the broker is away
    std::string sender_state; // a filter of topics: senders say there whether they are online
    std::string answers;      // a filter of the topics that answers may go to; empty: to none

    std::string full_filter() const;
};

struct Configuration {
    std::string device;        // names the origin of messages
    std::string prefix;        // the default of the out rules; with "-set" of the in rules
    std::string endpoint;      // the name of the bridge's handle
    std::string status_prefix; // of the bridge's own tags
    std::string state_topic;   // says online or offline
    std::string state_file;
    milliseconds scan_interval{2'000};
    std::string dictionary; // the directory that says what tags mean; empty: the usual one
    std::string discovery;  // where Home Assistant looks for devices; empty: it is told nothing
    int quality_when_gone = 0;
    bool trust_visible = false; // assume that processes which cannot be seen have no topic open
    BrokerSettings broker;
    std::vector<BrokerSettings> fallbacks; // tried in this order after it
    std::vector<OutRule> out;
    std::vector<InRule> in;

    // All of them, in the order in which they are tried.
    std::vector<const BrokerSettings *> brokers() const;

    // The first rule that takes a tag, or null. The bridge's own tags are never sent.
    const OutRule *rule_for(std::string_view tag) const;

    // The most exact of the in rules that take a topic, or null.
    const InRule *in_rule_for(std::string_view topic) const;

    // Says whether the topic belongs to a tree that several devices write: the broker keeps what is
    // sent there, and an in rule brings it back.
    bool shares(std::string_view topic) const;

    // How many rules there are, in words.
    std::string summary() const;
};

using ConfigurationResult = tool::Configured<Configuration>;

// Reads and checks a file.
ConfigurationResult load_configuration(const std::string &path);

// The same from a text; `path` is for messages.
ConfigurationResult parse_configuration(std::string_view text, const std::string &path);

// Finds what is wrong between the rules; each line names the rules.
std::vector<std::string> rule_problems(const Configuration &configuration);

} // namespace kp::mqtt
