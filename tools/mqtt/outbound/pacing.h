// When something may happen again: sending of one topic, sending at all, connecting.
#pragma once

#include "clock.h"
#include "sample.h"

#include <algorithm>
#include <optional>
#include <random>

namespace kp::mqtt {

// What keeps a topic quiet, from its rule.
struct Quiet {
    milliseconds min_interval{0};
    double deadband = 0;          // absolute; 0: none
    double relative_deadband = 0; // of the last value sent; 0: none
    bool only_changes = false;    // a write of the same value is no change
};

// Remembers what of one topic was sent last and decides about the next sample.
class Gate {
  public:
    enum class Verdict { send, skip, later };

    Verdict judge(const Quiet &quiet, const Sample &sample, Clock::time_point now) const;

    // When a sample that was to come later may go.
    Clock::time_point due(const Quiet &quiet) const
    {
        return *sent_at_ + quiet.min_interval;
    }
    void sent(const Sample &sample, Clock::time_point now);

    // When the topic was last sent; nothing before the first time.
    std::optional<Clock::time_point> sent_at() const
    {
        return sent_at_;
    }

  private:
    bool is_noise(const Quiet &quiet, const Sample &sample) const;

    std::optional<Clock::time_point> sent_at_;
    uint32_t type_ = 0;
    uint8_t quality_ = 0;
    std::string value_;
};

// Lets `rate` events a second pass, up to a tenth of a second's share at once. A rate of 0 lets
// everything pass.
class TokenBucket {
  public:
    explicit TokenBucket(double rate) : rate_(rate), room_(std::max(1.0, rate / 10))
    {
    }
    bool may_pass(Clock::time_point now);
    void pass();

  private:
    double rate_;
    double room_;
    double tokens_ = 0;
    std::optional<Clock::time_point> filled_at_;
};

// Delays between attempts to connect: each about twice the one before, up to a maximum, and each a
// random part of it, so that a fleet does not come back at once.
class Backoff {
  public:
    Backoff(milliseconds first, milliseconds most, uint64_t seed = std::random_device{}())
        : first_(first), most_(most), next_(first), random_(seed)
    {
    }
    milliseconds next();
    void reset()
    {
        next_ = first_;
    }

  private:
    milliseconds first_;
    milliseconds most_;
    milliseconds next_;
    std::mt19937_64 random_;
};

} // namespace kp::mqtt
