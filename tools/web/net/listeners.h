// The sockets on which connections are taken: those of the configuration, or those that a service
// manager has opened.
#pragma once

#include "common/result.h"
#include "config/configuration.h"
#include "layout/unique_fd.h"

#include <sys/socket.h>

namespace kp::web {

struct Connection {
    UniqueFd fd;
    sockaddr_storage address{};
    socklen_t length = 0;

    explicit operator bool() const
    {
        return static_cast<bool>(fd);
    }
};

class Listeners {
  public:
    Listeners() = default;
    Listeners(Listeners &&) = default;
    Listeners &operator=(Listeners &&) = default;
    // Removes the files of its own Unix sockets.
    ~Listeners();

    // Opens the addresses. A Unix socket that nobody listens on any more is replaced.
    static tool::Result<Listeners> open(const std::vector<Address> &addresses);
    // Those that the service manager hands over in LISTEN_FDS; none without it.
    static Listeners inherited();

    // One descriptor for each, for poll().
    const std::vector<UniqueFd> &fds() const
    {
        return fds_;
    }
    // The next connection of a socket; empty when there is none.
    static Connection accept(const UniqueFd &listener);
    // What they listen on, as addresses of the configuration are written.
    std::vector<std::string> names() const;

  private:
    std::string add(const Address &address);

    std::vector<UniqueFd> fds_;
    std::vector<std::string> files_; // of Unix sockets
};

} // namespace kp::web
