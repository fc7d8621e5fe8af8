// One attempt to connect. Connecting can wait for a name server, so it has a thread of its own,
// which outlives the link when the server does not answer; what both need is shared.
#pragma once

#include "layout/unique_fd.h"
#include "tls/handshake.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mosquitto.h>
#include <string>

namespace kp::mqtt {

struct Attempt {
    Attempt();
    ~Attempt();
    Attempt(const Attempt &) = delete;
    Attempt &operator=(const Attempt &) = delete;

    std::unique_ptr<Handshake> handshake; // where the connection is encrypted
    mosquitto *client = nullptr;
    UniqueFd done; // readable at the end of the attempt

    // The rest is set by the thread. The results are valid once `is_done` is true.
    std::atomic<bool> is_done = false;
    int result = MOSQ_ERR_SUCCESS;
    int error = 0; // the errno that belongs to it
};

struct Destination {
    std::string host;
    int port;
    int keep_alive_s;
    uint32_t most_packet_bytes; // the broker keeps back what is larger
    uint32_t session_expiry_s;  // how long the broker keeps what waits for the client
};

// Starts the thread, which keeps the attempt alive until it ends.
void start_connecting(std::shared_ptr<Attempt> attempt, Destination destination);

} // namespace kp::mqtt
