#include "connection_check.h"

#include "common/text/text.h"
#include "layout/unique_fd.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <ostream>
#include <poll.h>
#include <set>
#include <sys/socket.h>

namespace kp::mqtt {

namespace {

struct FreeAddresses {
    void operator()(addrinfo *list) const
    {
        freeaddrinfo(list);
    }
};

std::string number_of(const addrinfo &address)
{
    std::array<char, NI_MAXHOST> text{};
    const int result = getnameinfo(address.ai_addr, address.ai_addrlen, text.data(),
                                   static_cast<socklen_t>(text.size()), nullptr, 0, NI_NUMERICHOST);
    return result == 0 ? text.data() : gai_strerror(result);
}

// Returns what keeps a connection from coming up, or an empty text.
std::string connect_problem(const addrinfo &address, milliseconds patience)
{
    const UniqueFd fd(
        socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
    if (!fd)
        return std::strerror(errno);
    if (connect(fd.get(), address.ai_addr, address.ai_addrlen) == 0)
        return {};
    if (errno != EINPROGRESS)
        return std::strerror(errno);
    pollfd waiting{fd.get(), POLLOUT, 0};
    if (poll(&waiting, 1, static_cast<int>(patience.count())) == 0)
        return "no answer";
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error ? std::strerror(error) : "";
}

} // namespace

ConnectionCheck::ConnectionCheck(const Configuration &configuration, const BrokerSettings &broker,
                                 std::ostream &out)
    : configuration_(configuration), settings_(broker), out_(out)
{
    settings_.client_id += "-check";
    settings_.session_expiry_s = 0;
}

bool ConnectionCheck::run()
{
    const bool went_well = find_addresses() && join() && subscribe_all();
    if (link_ && !closed_)
        link_->disconnect();
    return went_well;
}

bool ConnectionCheck::say(const std::string &step, const std::string &result,
                          const std::string &problem)
{
    out_ << step << ": " << (problem.empty() ? result : "FAILED: " + problem) << std::endl;
    return problem.empty();
}

// One address that answers will do; the bridge tries them all, too.
bool ConnectionCheck::find_addresses()
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    const std::string port = std::to_string(settings_.port);
    const int result = getaddrinfo(settings_.host.c_str(), port.c_str(), &wanted, &list);
    const std::unique_ptr<addrinfo, FreeAddresses> addresses(list);
    std::string numbers;
    for (const addrinfo *each = addresses.get(); each; each = each->ai_next)
        numbers += (numbers.empty() ? "" : ", ") + number_of(*each);
    if (!say("resolve " + settings_.host, numbers, result == 0 ? "" : gai_strerror(result)))
        return false;
    for (const addrinfo *each = addresses.get(); each; each = each->ai_next)
        if (say("connect to " + number_of(*each) + " port " + port, "good",
                connect_problem(*each, settings_.connect_timeout)))
            return true;
    return false;
}

BrokerEvents ConnectionCheck::events()
{
    return {
        .connected = [this] { is_connected_ = true; },
        .acknowledged = [](int, const Answer &) {},
        .subscribed = [this](int id, const Answer &answer) { subscribed(id, answer); },
        .received = [](const Message &) {},
        .closed = [this](const std::string &why, int) { closed_ = why; },
    };
}

bool ConnectionCheck::wait_until(const std::function<bool()> &is_done)
{
    const auto end = Clock::now() + settings_.connect_timeout;
    while (!is_done() && !closed_ && Clock::now() < end) {
        pollfd broker{link_->fd(), link_->poll_events(), 0};
        (void)poll(&broker, 1, 50);
        link_->serve(broker.revents);
    }
    return is_done();
}

bool ConnectionCheck::join()
{
    const std::string &file = settings_.credentials_file;
    const auto credentials =
        file.empty() ? tool::Result<Credentials>::of({}) : read_credentials(file);
    if (!credentials)
        return say("credentials", "", credentials.problem);
    auto started = BrokerLink::start(settings_, *credentials.value, nullptr, events());
    if (!started)
        return say("MQTT", "", started.problem);
    link_ = std::move(*started.value);
    (void)wait_until([this] { return is_connected_; });
    const std::string why = is_connected_ ? "" : closed_.value_or("no answer");
    const bool is_about_tls = why.starts_with("TLS: ");
    if (settings_.tls && (is_connected_ || is_about_tls) &&
        !say("TLS", is_connected_ ? link_->protection() : "", why.substr(is_about_tls ? 5 : 0)))
        return false;
    return say("MQTT as " + tool::escaped(settings_.client_id), "accepted", why);
}

bool ConnectionCheck::subscribe_all()
{
    std::set<std::string> filters{configuration_.state_topic};
    for (const InRule &rule : configuration_.in) {
        filters.insert(rule.full_filter());
        if (!rule.sender_state.empty())
            filters.insert(rule.sender_state);
    }
    for (const std::string &filter : filters) {
        int id = 0;
        if (link_->subscribe({.filter = filter}, id))
            subscriptions_[id] = filter;
        else
            all_granted_ = say("subscribe " + tool::escaped(filter), "", "cannot be asked for");
    }
    if (!wait_until([this] { return subscriptions_.empty(); }))
        for (const auto &[id, filter] : subscriptions_)
            all_granted_ =
                say("subscribe " + tool::escaped(filter), "", closed_.value_or("no answer"));
    return all_granted_;
}

void ConnectionCheck::subscribed(int id, const Answer &answer)
{
    const auto found = subscriptions_.find(id);
    if (found == subscriptions_.end())
        return;
    const bool is_granted = say("subscribe " + tool::escaped(found->second), "granted",
                                answer.is_refusal() ? answer.text : "");
    all_granted_ = all_granted_ && is_granted;
    subscriptions_.erase(found);
}

} // namespace kp::mqtt
