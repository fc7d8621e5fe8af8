// The HTTP server: takes connections, checks who asks, and sends what the site answers. One thread
// does it all, so nothing here is locked.
#pragma once

#include "answers/site.h"
#include "common/system/service_manager.h"
#include "common/system/signals.h"
#include "http/guard.h"
#include "net/listeners.h"

#include <map>
#include <microhttpd.h>
#include <set>

namespace kp::web {

enum class Ending { stop, reload };

class Server {
  public:
    // What is given must outlive the server.
    Server(const Configuration &configuration, const Listeners &listeners, Board &board, Site &site,
           Counters &counters);
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server();

    // Serves until a signal asks for a reload or for the end.
    Ending run(const tool::Signals &signals, tool::ServiceManager &manager);

  private:
    struct Exchange;
    struct Sending;

    static void *take_target(void *self, const char *target, MHD_Connection *connection);
    static MHD_Result take_request(void *self, MHD_Connection *connection, const char *url,
                                   const char *method, const char *version, const char *upload,
                                   std::size_t *upload_size, void **exchange);
    static void end_request(void *self, MHD_Connection *connection, void **exchange,
                            MHD_RequestTerminationCode reason);
    static void note_connection(void *self, MHD_Connection *connection, void **context,
                                MHD_ConnectionNotificationCode what);
    static ssize_t read_source(void *sending, uint64_t position, char *room, std::size_t size);
    static void end_source(void *sending);

    std::optional<Answer> refusal(MHD_Connection *connection, Exchange &exchange,
                                  const char *method) const;
    MHD_Result send(MHD_Connection *connection, Answer answer);
    void accept_all(const UniqueFd &listener);
    void do_what_is_due();
    void wake_sources();
    void expect_request(MHD_Connection *connection);
    void close_overdue();
    int time_left_ms() const;

    const Configuration &configuration_;
    const Listeners &listeners_;
    const Guard guard_;
    Board &board_;
    Site &site_;
    Counters &counters_;
    std::map<MHD_Connection *, uint64_t> deadlines_; // of connections without a whole request
    std::set<Sending *> waiting_;
    uint64_t look_at_us_ = 0;
    uint64_t check_at_us_ = 0;
    MHD_Daemon *daemon_ = nullptr;
};

} // namespace kp::web
