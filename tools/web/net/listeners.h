// Owns the sockets on which connections are taken. The configuration names them, or a service
// manager has opened them.
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
    // Takes those that the service manager hands over in LISTEN_FDS. There are none without it.
    static Listeners inherited();

    // Gives one descriptor for each, for poll().
    const std::vector<UniqueFd> &fds() const
    {
        return fds_;
    }
    // Gives the next connection of a socket; an empty one when none waits.
    static Connection accept(const UniqueFd &listener);
    // Gives what they listen on, written as the addresses of the configuration are.
    std::vector<std::string> names() const;

  private:
    std::string add(const Address &address);

    std::vector<UniqueFd> fds_;
    std::vector<std::string> files_; // of Unix sockets
};

} // namespace kp::web
