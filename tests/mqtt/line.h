// A line between a bridge and its broker that the test can make slow, cut and mend: a port of the
// loopback that forwards to the broker's.
#pragma once

#include "layout/unique_fd.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <string>
#include <thread>

namespace kptest {

class Line {
  public:
    // Each byte arrives so much later than it was sent, in both directions.
    explicit Line(int broker_port, std::chrono::milliseconds delay = {});
    ~Line();
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    // Where the bridge connects to.
    int port() const
    {
        return port_;
    }
    // Ends every connection where it stands, and lets none come up until mend() is called.
    void cut();
    void mend();

  private:
    using Clock = std::chrono::steady_clock;
    struct Piece {
        Clock::time_point due;
        std::string bytes;
    };
    struct Way {
        int from;
        int to;
        std::deque<Piece> pieces;
    };
    struct Connection {
        kp::UniqueFd client;
        kp::UniqueFd broker;
        Way ways[2];
    };

    void run();
    void accept_one();
    bool forward(Way &way, bool readable);
    bool is_cut() const
    {
        return is_cut_;
    }

    const int broker_port_;
    const std::chrono::milliseconds delay_;
    kp::UniqueFd listener_;
    int port_ = 0;
    std::list<Connection> connections_; // the thread's
    std::atomic<bool> is_cut_ = false;
    std::atomic<bool> has_cut_ = false;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

} // namespace kptest
