#include "server/server.h"

#include "common/clock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <poll.h>

namespace kp::web {

namespace {

constexpr std::size_t kHeaderBytes = 8192; // of one request, besides its target
constexpr std::size_t kPieceBytes = 8192;  // of a body that is made while it is sent
constexpr unsigned kSilentSeconds = 60;    // after which a client that takes nothing is dropped
constexpr uint64_t kCheckUs = tool::kUsPerSecond / 4;
constexpr uint64_t kUsPerMs = 1000;

// A browser takes nothing but our own files into the page, shows it in no other page, guesses no
// types and keeps nothing.
constexpr std::pair<const char *, const char *> kHeaders[] = {
    {"Content-Security-Policy", "default-src 'none'; script-src 'self'; style-src 'self'; "
                                "img-src 'self'; connect-src 'self'; base-uri 'none'; "
                                "form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

std::string header(MHD_Connection *connection, const char *name)
{
    const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

// Leaves the target as it is. It is decoded elsewhere, so that "%2F" and "%00" are not mistaken.
std::size_t keep_escapes(void *, MHD_Connection *, char *text)
{
    return std::strlen(text);
}

} // namespace

// A request that comes in.
struct Server::Exchange {
    std::string target;
    Request request = {};
    bool is_seen = false;
    bool is_answered = false;
    std::optional<Answer> refusal = {};

    // Only a PUT has a body that counts; what others send, and what is refused, is left alone.
    void take_body(std::string_view piece)
    {
        if (request.method != "PUT" || refusal)
            return;
        if (request.body.size() + piece.size() > kMostBodyBytes)
            refusal = failure(413, "the body is too long");
        else
            request.body += piece;
    }
};

// A body that goes out while it is made.
struct Server::Sending {
    Server &server;
    MHD_Connection *connection;
    std::unique_ptr<Source> source;
};

Server::Server(const Configuration &configuration, const Listeners &listeners, Board &board,
               Site &site, Counters &counters)
    : configuration_(configuration), listeners_(listeners), guard_(configuration.hosts),
      board_(board), site_(site), counters_(counters)
{
    const unsigned flags = MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME;
    daemon_ = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &Server::take_request, this, MHD_OPTION_URI_LOG_CALLBACK,
        &Server::take_target, this, MHD_OPTION_UNESCAPE_CALLBACK, &keep_escapes, nullptr,
        MHD_OPTION_NOTIFY_COMPLETED, &Server::end_request, this, MHD_OPTION_NOTIFY_CONNECTION,
        &Server::note_connection, this, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        configuration.limits.url_bytes + kHeaderBytes, MHD_OPTION_CONNECTION_LIMIT,
        configuration.limits.clients, MHD_OPTION_CONNECTION_TIMEOUT, kSilentSeconds,
        MHD_OPTION_END);
    if (!daemon_)
        throw std::bad_alloc();
}

Server::~Server()
{
    for (const Sending *sending : std::exchange(waiting_, {}))
        MHD_resume_connection(sending->connection);
    MHD_stop_daemon(daemon_);
}

Ending Server::run(const tool::Signals &signals, tool::ServiceManager &manager)
{
    std::vector<pollfd> room = {
        {MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, POLLIN, 0},
        {signals.fd(), POLLIN, 0},
    };
    for (const UniqueFd &fd : listeners_.fds())
        room.push_back({fd.get(), POLLIN, 0});
    while (true) {
        (void)poll(room.data(), room.size(), time_left_ms());
        if (const auto order = signals.next(); order != tool::Order::none)
            return order == tool::Order::reload ? Ending::reload : Ending::stop;
        for (const UniqueFd &fd : listeners_.fds())
            accept_all(fd);
        (void)MHD_run(daemon_);
        do_what_is_due();
        manager.keep_watchdog_quiet(std::chrono::steady_clock::now());
    }
}

int Server::time_left_ms() const
{
    const uint64_t now = tool::monotonic_us();
    const uint64_t next = std::min(look_at_us_, check_at_us_);
    uint64_t left_ms = next > now ? (next - now + kUsPerMs - 1) / kUsPerMs : 0;
    MHD_UNSIGNED_LONG_LONG wanted_ms = 0;
    if (MHD_get_timeout(daemon_, &wanted_ms) == MHD_YES)
        left_ms = std::min<uint64_t>(left_ms, wanted_ms);
    return static_cast<int>(left_ms);
}

void Server::do_what_is_due()
{
    const uint64_t now = tool::monotonic_us();
    look_at_us_ = std::min(look_at_us_, now + board_.interval_us()); // a new client may be faster
    if (now >= look_at_us_) {
        look_at_us_ = now + board_.interval_us();
        board_.follower_count() > 0 ? board_.look() : board_.refresh();
        wake_sources();
    }
    if (now >= check_at_us_) {
        check_at_us_ = now + kCheckUs;
        wake_sources();
        close_overdue();
        site_.tell_problems();
    }
}

// A client too many is told so at once, which costs next to nothing, instead of being left to wait.
void Server::accept_all(const UniqueFd &listener)
{
    while (Connection connection = Listeners::accept(listener)) {
        if (counters_.connections < configuration_.limits.clients) {
            (void)MHD_add_connection(daemon_, connection.fd.release(),
                                     reinterpret_cast<const sockaddr *>(&connection.address),
                                     connection.length);
            continue;
        }
        constexpr std::string_view kFull = "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\n"
                                           "Content-Length: 0\r\nConnection: close\r\n\r\n";
        (void)::send(connection.fd.get(), kFull.data(), kFull.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        ++counters_.turned_away;
    }
}

void Server::wake_sources()
{
    for (auto next = waiting_.begin(); next != waiting_.end();) {
        Sending *sending = *next++;
        if (!sending->source->has_more())
            continue;
        waiting_.erase(sending);
        MHD_resume_connection(sending->connection);
    }
    (void)MHD_run(daemon_);
}

void Server::expect_request(MHD_Connection *connection)
{
    const auto time_ms = static_cast<uint64_t>(configuration_.limits.request_time.count());
    deadlines_[connection] = tool::monotonic_us() + time_ms * kUsPerMs;
}

// It only shuts them down: the daemon then sees the end of the connection and cleans up.
void Server::close_overdue()
{
    const uint64_t now = tool::monotonic_us();
    for (const auto &[connection, deadline] : deadlines_)
        if (now >= deadline)
            (void)shutdown(
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd,
                SHUT_RDWR);
}

void *Server::take_target(void *, const char *target, MHD_Connection *)
{
    return new Exchange{target};
}

// The daemon calls it with the headers, with each piece of a body, and at the end. A client that
// sends a body unasked gets the answer when the body is there, since a connection that is closed
// before it was read may lose the answer. The time for a request bounds that, too.
MHD_Result Server::take_request(void *self, MHD_Connection *connection, const char *,
                                const char *method, const char *, const char *upload,
                                std::size_t *upload_size, void **context)
{
    auto &server = *static_cast<Server *>(self);
    auto &exchange = *static_cast<Exchange *>(*context);
    if (!std::exchange(exchange.is_seen, true)) {
        ++server.counters_.requests;
        exchange.refusal = server.refusal(connection, exchange, method);
        if (!exchange.refusal)
            exchange.refusal = server.site_.refusal(exchange.request);
        const bool waits = !header(connection, MHD_HTTP_HEADER_EXPECT).empty();
        if (!exchange.refusal || !waits)
            return MHD_YES;
    }
    if (*upload_size > 0) {
        exchange.take_body({upload, std::exchange(*upload_size, 0)});
        return MHD_YES;
    }
    if (std::exchange(exchange.is_answered, true))
        return MHD_YES;
    if (exchange.refusal)
        return server.send(connection, std::move(*exchange.refusal));
    return server.send(connection, server.site_.answer(exchange.request));
}

// Says why a request is refused; nothing when it is not.
std::optional<Answer> Server::refusal(MHD_Connection *connection, Exchange &exchange,
                                      const char *method) const
{
    const std::string host = header(connection, MHD_HTTP_HEADER_HOST);
    const std::string origin = header(connection, MHD_HTTP_HEADER_ORIGIN);
    if (!guard_.is_own_host(host))
        return failure(403, "the Host header names another machine; the setting hosts of "
                            "kp-web.conf(5) has the further names of this one");
    if (!origin.empty() && !Guard::is_same_origin(origin, host))
        return failure(403, "a page of elsewhere may not ask");
    if (exchange.target.size() > configuration_.limits.url_bytes)
        return failure(414, "the target is too long");
    auto target = parse_target(exchange.target);
    if (!target)
        return failure(400, target.problem);
    const std::string length = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    exchange.request = {method,
                        std::move(*target.value),
                        header(connection, "Last-Event-ID"),
                        header(connection, MHD_HTTP_HEADER_AUTHORIZATION),
                        header(connection, MHD_HTTP_HEADER_CONTENT_TYPE),
                        header(connection, MHD_HTTP_HEADER_CONTENT_ENCODING),
                        std::strtoull(length.c_str(), nullptr, 10)};
    return std::nullopt;
}

MHD_Result Server::send(MHD_Connection *connection, Answer answer)
{
    deadlines_.erase(connection);
    counters_.refused += answer.status >= 400;
    MHD_Response *response =
        answer.source
            ? MHD_create_response_from_callback(
                  MHD_SIZE_UNKNOWN, kPieceBytes, &Server::read_source,
                  new Sending{*this, connection, std::move(answer.source)}, &Server::end_source)
            : MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                              MHD_RESPMEM_MUST_COPY);
    for (const auto &[name, value] : kHeaders)
        (void)MHD_add_response_header(response, name, value);
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type.c_str());
    for (const auto &[name, value] : answer.headers)
        (void)MHD_add_response_header(response, name.c_str(), value.c_str());
    const MHD_Result result = MHD_queue_response(connection, answer.status, response);
    MHD_destroy_response(response);
    return result;
}

ssize_t Server::read_source(void *self, uint64_t, char *room, std::size_t size)
{
    auto &sending = *static_cast<Sending *>(self);
    const std::size_t got = sending.source->read({room, size});
    if (got > 0)
        return static_cast<ssize_t>(got);
    if (sending.source->is_at_end())
        return MHD_CONTENT_READER_END_OF_STREAM;
    sending.server.waiting_.insert(&sending);
    MHD_suspend_connection(sending.connection);
    return 0;
}

void Server::end_source(void *self)
{
    auto *sending = static_cast<Sending *>(self);
    sending->server.waiting_.erase(sending);
    delete sending;
}

void Server::end_request(void *self, MHD_Connection *connection, void **context,
                         MHD_RequestTerminationCode)
{
    delete static_cast<Exchange *>(std::exchange(*context, nullptr));
    static_cast<Server *>(self)->expect_request(connection);
}

void Server::note_connection(void *self, MHD_Connection *connection, void **,
                             MHD_ConnectionNotificationCode what)
{
    auto &server = *static_cast<Server *>(self);
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
        --server.counters_.connections;
        server.deadlines_.erase(connection);
        return;
    }
    ++server.counters_.connections;
    server.expect_request(connection);
}

} // namespace kp::web
