// A client that does what curl does not: it sends what it likes, and reads slowly or never.
#pragma once

#include "testing/process.h"

#include <cstdint>
#include <string>

namespace kptest {

class Client {
  public:
    // `receive_bytes` bounds what the kernel takes for a client that does not read; 0 leaves it.
    explicit Client(uint16_t port, int receive_bytes = 0);
    // Connects to a Unix socket.
    explicit Client(const std::string &path);
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client();

    bool send(const std::string &text) const;
    // Sends a GET request with a Host header of the loopback, and with these lines.
    bool ask(const std::string &target, const std::string &headers = "") const;
    // Waits until what was received contains `text`. Chunks are not taken apart.
    bool wait_for(const std::string &text);
    // Waits until the server closes the connection. False when it does not.
    bool wait_for_end();
    const std::string &received() const
    {
        return received_;
    }
    void forget()
    {
        received_.clear();
    }

  private:
    bool receive();

    int fd_ = -1;
    bool has_ended_ = false;
    std::string received_;
};

} // namespace kptest
