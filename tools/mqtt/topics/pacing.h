// Decides when a message may be sent: of one topic (Gate), and of all together (TokenBucket).
#pragma once

#include "base/clock.h"
#include "common/dictionary/facts.h"
#include "config/rule_settings.h"
#include "store/sample.h"

#include <algorithm>
#include <optional>

namespace kp::mqtt {

// What a rule says, with the part of the tag's range as a deadband.
Quiet with_range(Quiet quiet, const tool::Facts &facts);

// Remembers what of one topic was sent last and decides about the next sample.
class Gate {
  public:
    enum class Verdict { send, skip, later };

    Verdict judge(const Quiet &quiet, const Sample &sample, Clock::time_point now) const;

    // When a sample that was held back may go.
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

} // namespace kp::mqtt
