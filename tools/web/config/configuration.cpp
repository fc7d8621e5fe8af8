#include "config/configuration.h"

#include "common/config/configuration_file.h"
#include "common/text/parse_number.h"

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <sys/un.h>

namespace kp::web {

namespace {

using tool::Problems;
using tool::TableReader;

constexpr const char *kUnixPrefix = "unix:";
constexpr uint16_t kUsualPort = 8420;

bool is_loopback(const std::string &host)
{
    in_addr four{};
    in6_addr six{};
    if (inet_pton(AF_INET, host.c_str(), &four) == 1)
        return (ntohl(four.s_addr) >> 24) == 127;
    return inet_pton(AF_INET6, host.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

tool::Result<Address> parse_address(const std::string &text)
{
    using Parsed = tool::Result<Address>;
    if (text.starts_with(kUnixPrefix)) {
        const std::string path = text.substr(std::strlen(kUnixPrefix));
        if (!path.starts_with('/') || path.size() >= sizeof sockaddr_un::sun_path)
            return Parsed::failed("\"" + text + "\" must name a socket by a whole path");
        return Parsed::of({"", 0, path});
    }
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    const auto port =
        tool::parse_number<uint16_t>(colon == text.npos ? "" : text.substr(colon + 1));
    if (!port)
        return Parsed::failed("\"" + text + "\" must be as \"127.0.0.1:8420\" or \"unix:/PATH\"");
    if (!is_loopback(host))
        return Parsed::failed("\"" + text +
                              "\" is not on the loopback; a reverse proxy serves other machines");
    return Parsed::of({host, *port, ""});
}

// The page is looked for beside the program first, so that a tree that was installed elsewhere or
// moved has its own.
std::string usual_page()
{
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto beside = program.parent_path().parent_path() / "share/zu-kp/web";
    return std::filesystem::exists(beside, error) ? beside.string() : KP_WEB_PAGE;
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
        read_addresses(table, result);
        table.read("hosts", result.hosts);
        table.read_patterns("show", result.show);
        table.read_patterns("hide", result.hide);
        table.read_patterns("metrics", result.metrics);
        table.read("rate", result.rate, 0.1, 100);
        result.page = usual_page();
        table.read("page", result.page);
        table.read("drawing", result.drawing);
        table.read("dictionary", result.dictionary);
        read_write_rules(table, result);
        if (const toml::table *limits = table.table("limits"))
            result.limits = read_limits(*limits);
        table.refuse_the_rest();
        return result;
    }

  private:
    static void read_addresses(TableReader &table, Configuration &result)
    {
        std::vector<std::string> texts = {"127.0.0.1:" + std::to_string(kUsualPort)};
        table.read("listen", texts);
        for (const std::string &text : texts) {
            if (auto address = parse_address(text))
                result.listen.push_back(std::move(*address.value));
            else
                table.problem("listen", address.problem);
        }
    }

    void read_write_rules(TableReader &file, Configuration &result)
    {
        for (const toml::table *source : file.tables("write")) {
            TableReader table(*source, path_, problems_);
            std::vector<std::string> topics;
            table.read_patterns("topics", topics);
            if (topics.empty())
                table.problem("topics", "patterns are needed, as [\"a/#\"]");
            std::string token_file;
            table.read("token-file", token_file);
            table.refuse_the_rest();
            if (!token_file.starts_with('/'))
                table.problem("token-file", "a whole path is needed");
            else if (auto token = Token::read(token_file))
                result.write.push_back({std::move(topics), *token.value});
            else
                table.problem("token-file", token.problem);
        }
    }

    Limits read_limits(const toml::table &source)
    {
        TableReader table(source, path_, problems_);
        Limits limits;
        table.read_integer("clients", limits.clients, 1, 1000);
        table.read_integer("topics", limits.topics, 1, 10'000);
        table.read_integer("url-bytes", limits.url_bytes, 256, 65'536);
        table.read("request-time", limits.request_time, 0.1, 300);
        table.refuse_the_rest();
        return limits;
    }

    const std::string &path_;
    Problems &problems_;
};

Configuration read_configuration(const toml::table &file, const std::string &path,
                                 Problems &problems)
{
    return ConfigurationReader(path, problems).read(file);
}

} // namespace

std::string Address::text() const
{
    if (host.empty())
        return kUnixPrefix + path;
    const bool is_six = host.find(':') != host.npos;
    return (is_six ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

tool::Selection Configuration::shown() const
{
    tool::Selection selection;
    tool::Problem none; // the patterns were looked at when they were read
    (void)selection.set(show, hide, none);
    return selection;
}

ConfigurationResult load_configuration(const std::string &path)
{
    return tool::load_configuration(path, read_configuration);
}

ConfigurationResult parse_configuration(std::string_view text, const std::string &path)
{
    return tool::parse_configuration(text, path, read_configuration);
}

} // namespace kp::web
