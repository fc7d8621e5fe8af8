// Sees a packet that grows beyond all bounds while it still arrives. A broker is told how large a
// packet may be; one that ignores it would make libmosquitto gather the whole packet, up to 256
// MiB, before anybody sees it.
#pragma once

#include "base/clock.h"

#include <cstdint>

namespace kp::mqtt {

// A packet may be larger than what the broker was told, so that a slip costs no connection.
constexpr uint32_t kMostToleratedBytes = 4 * 1024 * 1024;

class PacketWatch {
  public:
    explicit PacketWatch(int keep_alive_s) : keep_alive_(keep_alive_s)
    {
    }

    // To be called when something was read from the socket. `has_ended` says that a whole packet
    // was handled. Returns whether the one that arrives is too large.
    bool is_too_large(int socket, bool has_ended, Clock::time_point now);

  private:
    const std::chrono::seconds keep_alive_;
    uint64_t begin_ = 0; // how many bytes had been read when the last packet ended
    Clock::time_point since_ = Clock::now();
};

} // namespace kp::mqtt
