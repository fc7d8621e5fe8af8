// Runs kp-web with a configuration, and asks it with curl.
#pragma once

#include "testing/child.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kptest {

struct Got {
    int status = 0; // of HTTP; 0 when there was no answer
    std::string headers;
    std::string body;
};

class WebProgram {
  public:
    // Starts the program, which listens on a free port of the loopback. `more` is further
    // configuration.
    explicit WebProgram(const std::string &more = "");
    WebProgram(const WebProgram &) = delete;
    WebProgram &operator=(const WebProgram &) = delete;
    ~WebProgram();

    pid_t pid() const
    {
        return process_->pid();
    }
    uint16_t port() const
    {
        return port_;
    }
    const std::string &folder() const
    {
        return folder_;
    }
    // Gives what curl gets for a path; `options` are further arguments of curl.
    Got get(const std::string &path, const std::vector<std::string> &options = {}) const;
    // Writes the configuration anew; the program reads it at SIGHUP.
    void configure(const std::string &more) const;
    void signal(int number) const
    {
        process_->signal(number);
    }
    std::optional<int> wait()
    {
        return process_->wait();
    }
    // Gives what it has said on standard error.
    std::string log() const;
    bool wait_for_log(const std::string &text) const;
    // Gives how much memory of its own it uses, in KiB.
    long memory() const;
    std::size_t descriptor_count() const;

  private:
    std::string folder_;
    uint16_t port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

// Gives what a command of the shell prints.
std::string output_of(const std::string &command);

// Gives the lines of a text, without their ends.
std::vector<std::string> lines_of(const std::string &text);

} // namespace kptest
