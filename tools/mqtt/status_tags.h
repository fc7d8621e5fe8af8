// The bridge's own state as tags, so that the tools of the device show it.
#pragma once

#include "base/counters.h"
#include "store/local_writer.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

struct Status {
    bool connected = false;
    uint64_t topics = 0;
    uint64_t unheard = 0;
    uint64_t pending = 0;
    uint64_t oldest_unsent_ms = 0;
};

constexpr const char *kHeartbeat = "heartbeat";

class StatusTags {
  public:
    StatusTags(std::string prefix, LocalWriter &writer)
        : prefix_(std::move(prefix)), writer_(writer)
    {
    }

    // Writes what has changed since the last time, and the heartbeat: the time, in microseconds
    // since the epoch, by which a bridge that was killed is told from one that lives.
    void show(const Status &status, const Counters &counters);

  private:
    void show(const char *name, uint32_t type, std::string bytes);
    void show(const char *name, uint64_t number);

    std::string prefix_;
    LocalWriter &writer_;
    std::unordered_map<std::string, std::string> shown_;
};

} // namespace kp::mqtt
