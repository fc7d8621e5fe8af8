#include "broker.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kptest {

namespace {

const std::string kReady = "$kp/ready";

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string from_hex(const std::string &hex)
{
    std::string bytes;
    for (size_t at = 0; at + 1 < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

std::vector<std::string> with(std::vector<std::string> options,
                              const std::vector<std::string> &more)
{
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

std::vector<std::string> client(const char *program, int port,
                                const std::vector<std::string> &options)
{
    return with({program, "-V", "5", "-h", "127.0.0.1", "-p", std::to_string(port)}, options);
}

std::vector<std::string> subscribing(const std::string &filter,
                                     const std::vector<std::string> &options)
{
    // The payload in hexadecimal first, since the JSON form shows bytes that are not UTF-8 as they
    // are.
    return with({"-q", "1", "-t", kReady, "-t", filter, "-F", "%x|%j"}, options);
}

SeenMessage parsed(const std::string &line)
{
    const size_t bar = line.find('|');
    SeenMessage message;
    message.payload = from_hex(line.substr(0, bar));
    std::string text = line.substr(bar + 1);
    if (const size_t payload = text.find(",\"payload\":"); payload != std::string::npos)
        text = text.substr(0, payload) + "}";
    const auto json = nlohmann::json::parse(text);
    message.topic = json["topic"];
    message.retained = json["retain"] == 1;
    message.qos = json["qos"];
    message.properties = json.value("properties", nlohmann::json::object());
    const auto user = message.properties.value("user-properties", nlohmann::json::object());
    for (const auto &[name, value] : user.items())
        message.user[name] = value;
    return message;
}

} // namespace

ReservedPort::ReservedPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const int reuse = 1;
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    // Only after the port is chosen, so that none is that another holds in the same way.
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse), 0);
    EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    number_ = ntohs(address.sin_port);
}

Broker::Broker(std::string settings) : settings_(std::move(settings))
{
    start();
}

Broker::~Broker()
{
    kill();
}

void Broker::start()
{
    const std::string path = "/run/mosquitto." + std::to_string(port_.number()) + ".conf";
    std::ofstream(path) << "listener " << port_.number()
                        << " 127.0.0.1\nuser root\nlog_type error\n"
                        << settings_;
    process_ =
        std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", path});
    EXPECT_TRUE(wait_until([this] { return accepts(); })) << "mosquitto does not start";
}

void Broker::kill()
{
    end_with(SIGKILL);
}

void Broker::stop()
{
    end_with(SIGTERM);
}

void Broker::end_with(int number)
{
    if (!process_)
        return;
    process_->signal(number);
    (void)process_->wait();
    process_.reset();
}

bool Broker::accepts() const
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port_.number());
    const bool connected =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    (void)close(fd);
    return connected;
}

// A retained message on a topic that no wildcard covers is the first to come once the subscription
// stands.
Subscriber::Subscriber(int port, const std::string &filter, std::vector<std::string> options)
    : process_((publish(port, kReady, "x", with(options, {"-r"})),
                client("/usr/bin/mosquitto_sub", port, subscribing(filter, options))))
{
    const auto first = next();
    EXPECT_TRUE(first && first->topic == kReady) << "mosquitto_sub does not start on " << filter;
}

std::optional<SeenMessage> Subscriber::next(std::chrono::milliseconds deadline)
{
    const auto line = process_.hear(deadline);
    return line ? std::optional(parsed(*line)) : std::nullopt;
}

std::optional<SeenMessage> Subscriber::next_on(const std::string &topic,
                                               std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        const auto message = next(std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now()));
        if (!message || message->topic == topic)
            return message;
    }
    return {};
}

std::vector<SeenMessage> Subscriber::until_quiet(std::chrono::milliseconds quiet)
{
    std::vector<SeenMessage> messages;
    while (const auto message = next(quiet))
        messages.push_back(*message);
    return messages;
}

void publish(int port, const std::string &topic, const std::string &payload,
             const std::vector<std::string> &options)
{
    const std::string file = "/run/payload." + std::to_string(port);
    std::ofstream(file, std::ios::binary) << payload;
    std::vector<std::string> all{"-q", "1", "-t", topic};
    all.insert(all.end(), {payload.empty() ? "-n" : "-f"});
    if (!payload.empty())
        all.push_back(file);
    all.insert(all.end(), options.begin(), options.end());
    ChildProcess process(client("/usr/bin/mosquitto_pub", port, all));
    EXPECT_EQ(process.wait(), 0) << "mosquitto_pub on " << topic;
}

std::map<std::string, SeenMessage> retained(int port, const std::string &filter,
                                            std::vector<std::string> options)
{
    std::map<std::string, SeenMessage> found;
    Subscriber subscriber(port, filter, std::move(options));
    for (const SeenMessage &message : subscriber.until_quiet(std::chrono::milliseconds(500)))
        if (message.retained)
            found[message.topic] = message;
    return found;
}

} // namespace kptest
