#include "config/broker_reader.h"

#include "config/setting_values.h"

namespace kp::mqtt {

namespace {

using tool::TableReader;

constexpr int kPlainPort = 1883;
constexpr int kTlsPort = 8883;

class BrokerReader {
  public:
    BrokerReader(const std::string &path, tool::Problems &problems)
        : path_(path), problems_(problems)
    {
    }

    BrokerSettings read_first(TableReader &table, const std::string &device)
    {
        BrokerSettings broker;
        table.read<std::string>("host", broker.host, setting::host_alone);
        broker.client_id = "kp-mqtt-" + device;
        table.read<std::string>("client-id", broker.client_id, setting::client_id);
        table.read("credentials-file", broker.credentials_file);
        table.read_integer("keep-alive", broker.keep_alive_s, 5, 3600);
        table.read_integer("session-expiry", broker.session_expiry_s, 0, UINT32_MAX - 1);
        table.read("connect-timeout", broker.connect_timeout, 1, 300);
        table.read("reconnect-min", broker.reconnect_min, 0.1, 3600);
        table.read("reconnect-max", broker.reconnect_max, 0.1, 3600);
        if (broker.reconnect_max < broker.reconnect_min)
            table.problem("reconnect-max", "must not be less than reconnect-min");
        table.read("burst-rate", broker.burst_rate, 0, 1e6);
        if (const toml::table *tls = table.table("tls"))
            broker.tls = read_tls(*tls);
        broker.port = broker.tls ? kTlsPort : kPlainPort;
        table.read_integer("port", broker.port, 1, 65535);
        return broker;
    }

    BrokerSettings read_fallback(const toml::table &source, const BrokerSettings &first)
    {
        TableReader table(source, path_, problems_);
        BrokerSettings broker = first;
        table.read<std::string>("host", broker.host, setting::host_alone);
        if (!table.has("host"))
            table.problem("host", "is missing");
        table.read("credentials-file", broker.credentials_file);
        read_other_tls(source, table, broker);
        table.read_integer("port", broker.port, 1, 65535);
        table.refuse_the_rest();
        return broker;
    }

  private:
    // With another protection than the first broker's, the port is another one by default, too.
    void read_other_tls(const toml::table &source, TableReader &table, BrokerSettings &broker)
    {
        const toml::node *node = source.get("tls");
        if (!node)
            return;
        bool is_wanted = true;
        if (!node->is_boolean()) {
            const toml::table *tls = table.table("tls");
            broker.tls = tls ? std::optional(read_tls(*tls)) : std::nullopt;
        } else {
            table.read("tls", is_wanted);
            if (is_wanted)
                table.problem("tls", "must be false, or a table, [broker.fallback.tls]");
            broker.tls.reset();
        }
        broker.port = broker.tls ? kTlsPort : kPlainPort;
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

    const std::string &path_;
    tool::Problems &problems_;
};

} // namespace

std::vector<BrokerSettings> read_brokers(const toml::table &broker, const std::string &path,
                                         const std::string &device, tool::Problems &problems)
{
    BrokerReader reader(path, problems);
    TableReader table(broker, path, problems);
    std::vector<BrokerSettings> brokers{reader.read_first(table, device)};
    for (const toml::table *source : table.tables("fallback"))
        brokers.push_back(reader.read_fallback(*source, brokers.front()));
    table.refuse_the_rest();
    return brokers;
}

} // namespace kp::mqtt
