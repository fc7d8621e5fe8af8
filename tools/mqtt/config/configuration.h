// What the configuration file says, with every default filled in.
#pragma once

#include "config/rule_settings.h"
#include "kp.h"
#include "tls/tls_settings.h"

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
    std::vector<std::string> exclude;
    bool retain = true;
    Quiet quiet;
    uint32_t expiry_s = 0; // 0: the broker keeps the value for ever

    bool takes(std::string_view tag) const;

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

    std::string full_filter() const;
};

struct BrokerSettings {
    std::string host = "localhost";
    int port = 0; // 0 until read, then 1883 or with TLS 8883
    std::string client_id;
    std::string credentials_file; // user in the first line, password in the second
    int keep_alive_s = 30;
    milliseconds connect_timeout{10'000};
    milliseconds reconnect_min{1'000};
    milliseconds reconnect_max{60'000};
    double burst_rate = 500; // messages a second after a connection; 0: as fast as they go
    std::optional<TlsSettings> tls;
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
    std::vector<OutRule> out;
    std::vector<InRule> in;

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

struct ConfigurationResult {
    Configuration configuration;
    std::vector<std::string> problems; // one line each; empty when the configuration is good
};

// Reads and checks a file.
ConfigurationResult load_configuration(const std::string &path);

// The same from a text; `path` is for messages.
ConfigurationResult parse_configuration(std::string_view text, const std::string &path);

// Finds what is wrong between the rules; each line names the rules.
std::vector<std::string> rule_problems(const Configuration &configuration);

} // namespace kp::mqtt
