// Endpoints for tests: whole ones, and bare records without threads. And what they have received.
#pragma once

#include "notify/endpoint.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/notices.h"
#include "testing/process.h"
#include "testing/unix_socket.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kptest {

// Gives the path of an endpoint's socket.
std::string socket_path(const std::string &name);
// Says whether anything stands at a path.
bool file_exists(const std::string &path);
void make_file(const std::string &path);
// Makes connections that wait at a listening socket, until it takes no more.
std::vector<UnixSocket> fill_backlog(const std::string &path);

// Every test of this fixture begins without endpoints and leaves nothing behind.
class NotifyTest : public LeavesNothingBehind {
  protected:
    NotifyTest();
};

// Receives an endpoint's messages.
class Inbox {
  public:
    // The callback; `inbox` is its object.
    static void receive(const uint8_t *message, int32_t length, void *inbox);

    std::vector<std::string> messages() const;
    std::size_t count() const;
    std::thread::id receiving_thread() const;
    // Says whether so many messages, or more, arrive within the deadline.
    bool has_received(std::size_t count) const;

    // Keeps the receive thread in the callback of its next message until resume().
    void hold();
    bool is_holding() const;
    void resume();

  private:
    mutable std::mutex mutex_;
    std::condition_variable resumed_;
    std::vector<std::string> messages_;
    std::thread::id thread_;
    bool hold_ = false;
    bool is_holding_ = false;
};

// An endpoint that is opened here and closed at the end of the scope.
class Endpoint {
  public:
    explicit Endpoint(const std::string &name = "endpoint");
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;
    ~Endpoint();

    kp_notify_t *get() const
    {
        return endpoint_;
    }
    kp_notify_t *operator->() const
    {
        return endpoint_;
    }
    Inbox &inbox()
    {
        return inbox_;
    }

    void send(const std::string &message) const;
    void close();
    // Leaves the closing to the test.
    void forget();

    int client(std::size_t slot) const;
    int server(std::size_t slot) const;
    // These count the occupied slots, but not the listening socket.
    int client_count() const;
    int server_count() const;
    // Says whether so many peers, no more and no fewer, are there within the deadline.
    bool has_clients(int count) const;
    bool has_servers(int count) const;

  private:
    Inbox inbox_;
    kp_notify_t *endpoint_;
};

struct WaitCount {
    CountCalls waits_{Call::epoll_wait};
};

// An endpoint whose threads have all come to their first wait, so that the calls which follow are
// those that the test sets off.
class SettledEndpoint : private WaitCount, public Endpoint {
  public:
    SettledEndpoint();
};

// A record as it is before its threads start: both pipes are there, the slots are free.
class BareEndpoint {
  public:
    explicit BareEndpoint(const std::string &name = "bare");
    BareEndpoint(const BareEndpoint &) = delete;
    BareEndpoint &operator=(const BareEndpoint &) = delete;
    ~BareEndpoint();

    kp_notify_t &operator*() const
    {
        return *endpoint_;
    }
    kp_notify_t *operator->() const
    {
        return endpoint_;
    }
    Inbox &inbox()
    {
        return inbox_;
    }

    // Puts one end of a new connection into a slot and returns the other end.
    static UnixSocket connect(int32_t &slot);
    // Makes the listening socket and puts it into its slot.
    void listen() const;
    // Announces a connection in `server_fds`.
    void announce() const;
    // Sets the stop flag and wakes the threads.
    void stop() const;
    // Counts the bytes that wait in the pipe of announcements.
    int announced() const;

  private:
    Inbox inbox_;
    kp_notify_t *endpoint_;
};

// Counts the bytes that wait to be read from a descriptor.
int readable_bytes(int fd);

// Runs a hook before every call of the set.
class BeforeEach : public Shim {
  public:
    BeforeEach(CallSet calls, std::function<void()> hook);
};

using Step = std::function<void()>;

// Runs a thread's body on this thread. Runs step n before its n-th wait, and stops the endpoint
// before the wait after the last step. A step that makes nothing ready must stop the endpoint
// itself.
void run_in_steps(void *(*body)(void *), const BareEndpoint &endpoint, std::vector<Step> steps);

} // namespace kptest
