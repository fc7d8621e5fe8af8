// One device in a test: a process with tags of its own, and the bridge as a program.
#pragma once

#include "testing/child.h"

#include "kp.h"
#include "store/sample.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kptest {

// The tags of a provider with an endpoint of its own.
class Tags {
  public:
    Tags();
    ~Tags();
    Tags(const Tags &) = delete;
    Tags &operator=(const Tags &) = delete;

    void declare(const std::string &topic, uint32_t type = KP_TYPE_STRING,
                 uint32_t max_size = KP_MAX_VALUE_SIZE);
    // Writes and sends the notice.
    void write(const std::string &topic, const std::string &bytes, uint32_t quality = 1,
               uint64_t source_ts = 0);
    void drop(const std::string &topic);

  private:
    kp_t *handle_;
    std::map<std::string, kp_tag_t *> tags_;
};

// What a tag holds; nothing where it has no value.
std::optional<kp::mqtt::Sample> read_tag(const std::string &topic);

// Waits until a tag holds these bytes.
bool wait_for_tag(const std::string &topic, const std::string &bytes,
                  std::chrono::milliseconds deadline = kDeadline);

// A number that the bridge shows as a tag.
uint64_t status_number(const std::string &name);
bool wait_for_connection(bool connected = true);

// The bridge as a program.
const char *bridge_path();

// The program with a configuration: device "dev", the broker on this port, and what `more` says.
class BridgeProgram {
  public:
    BridgeProgram(int port, const std::string &more, std::vector<std::string> options = {});
    ~BridgeProgram();
    BridgeProgram(const BridgeProgram &) = delete;
    BridgeProgram &operator=(const BridgeProgram &) = delete;

    pid_t pid() const
    {
        return process_->pid();
    }
    void signal(int number) const
    {
        process_->signal(number);
    }
    // Ends it in order; its exit status.
    std::optional<int> stop();
    std::optional<int> wait()
    {
        return process_->wait();
    }
    void start();
    // Gives it another configuration and tells it so.
    void reload(int port, const std::string &more);
    // What it has said on standard error, and what it printed.
    std::string log() const;
    std::vector<std::string> output();
    // Memory in use, in KiB.
    long memory() const;
    // The most that it has had in use, in KiB.
    long memory_at_most() const;
    // How often its main thread has waited for something.
    long times_woken() const;

  private:
    void configure(int port, const std::string &more);
    // A number of /proc/PID/status.
    long status(const std::string &name) const;

    std::string path_;
    std::vector<std::string> options_;
    std::unique_ptr<ChildProcess> process_;
};

// One rule "a/#", to topics below "p", and the commands below "s" to tags below "c".
constexpr const char *kBothWays = "prefix = \"p\"\n"
                                  "[[out]]\npattern = \"a/#\"\n"
                                  "[[in]]\nfilter = \"c/#\"\nprefix = \"s\"\n";

// The settings of a broker that come first, and quick reconnecting.
std::string configuration(int port, const std::string &more, const std::string &broker = "",
                          const std::string &device = "dev");

} // namespace kptest
