// A mosquitto of the test's own on a free port of the loopback, and the independent clients that
// look at it. Each is ended by its own process id.
#pragma once

#include "layout/unique_fd.h"
#include "testing/child.h"

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace kptest {

// A port of the loopback that nobody else is given as long as this object lives. It is bound and
// does not listen: connections to it are refused, and a server may listen there that says that it
// takes addresses in use (SO_REUSEADDR), as mosquitto does.
class ReservedPort {
  public:
    ReservedPort();
    int number() const
    {
        return number_;
    }

  private:
    kp::UniqueFd socket_;
    int number_ = 0;
};

class Broker {
  public:
    // `settings` are lines of its configuration file. Waits until it accepts connections.
    explicit Broker(std::string settings = "allow_anonymous true\n");
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    int port() const
    {
        return port_.number();
    }
    pid_t pid() const
    {
        return process_->pid();
    }
    void signal(int number) const
    {
        process_->signal(number);
    }
    void kill();
    // Lets it save what its settings make it keep.
    void stop();
    // On the same port. What it had retained is gone unless `settings` say persistence.
    void start();
    bool accepts() const;

  private:
    void end_with(int number);

    std::string settings_;
    ReservedPort port_;
    std::unique_ptr<ChildProcess> process_;
};

// A message as mosquitto_sub shows it.
struct SeenMessage {
    std::string topic;
    std::string payload; // the bytes
    bool retained = false;
    int qos = 0;
    std::map<std::string, std::string> user; // the user properties
    nlohmann::json properties;
};

// mosquitto_sub on a filter. Its subscription stands when the constructor is done; what the broker
// had retained comes first.
class Subscriber {
  public:
    Subscriber(int port, const std::string &filter, std::vector<std::string> options = {});

    // The next message, or nothing when none comes in time.
    std::optional<SeenMessage> next(std::chrono::milliseconds deadline = kDeadline);
    // The next one of a topic; others are passed over.
    std::optional<SeenMessage> next_on(const std::string &topic,
                                       std::chrono::milliseconds deadline = kDeadline);
    // Everything until nothing has come for so long.
    std::vector<SeenMessage> until_quiet(std::chrono::milliseconds quiet);

  private:
    ChildProcess process_;
};

// mosquitto_pub; waits until the message is delivered (QoS 1).
void publish(int port, const std::string &topic, const std::string &payload,
             const std::vector<std::string> &options = {});

// What the broker has retained below a filter.
std::map<std::string, SeenMessage> retained(int port, const std::string &filter,
                                            std::vector<std::string> options = {});

} // namespace kptest
