// A Unix-domain stream socket that a test holds itself, to see the bytes that endpoints exchange.
#pragma once

#include "testing/process.h"

#include <string>

namespace kptest {

class UnixSocket {
  public:
    UnixSocket() = default;
    explicit UnixSocket(int fd) : fd_(fd)
    {
    }
    UnixSocket(UnixSocket &&other) noexcept;
    UnixSocket &operator=(UnixSocket &&other) noexcept;
    ~UnixSocket();

    // Makes a listening socket at a path, whose directories are made when missing.
    static UnixSocket listening(const std::string &path, int backlog = 32);
    // Makes a connection to the socket at a path; it is not open when that is refused.
    static UnixSocket connected(const std::string &path);
    // Leaves the socket file of an endpoint that is gone: one that was bound and then closed.
    static void leave_dead_file(const std::string &path);

    bool is_open() const
    {
        return fd_ >= 0;
    }
    int fd() const
    {
        return fd_;
    }

    // Gives the next connection; not open when none arrives within the deadline.
    UnixSocket accept(std::chrono::milliseconds deadline = kDeadline) const;
    // Sends all the bytes without waiting. False when they do not go out whole.
    bool send(const std::string &bytes) const;
    // Gives the next `count` bytes; fewer when the other side closes or the deadline passes first.
    std::string recv(std::size_t count, std::chrono::milliseconds deadline = kDeadline) const;
    // Says whether the other side closes, with nothing left to read, within the deadline.
    bool is_closed_by_peer(std::chrono::milliseconds deadline = kDeadline) const;
    // Says whether something can be read, or the other side closes, within the deadline.
    bool is_readable(std::chrono::milliseconds deadline = kDeadline) const;
    void close();

  private:
    int fd_ = -1;
};

} // namespace kptest
