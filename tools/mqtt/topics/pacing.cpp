#include "topics/pacing.h"

#include "common/values/value_text.h"

#include <cmath>

namespace kp::mqtt {

Quiet with_range(Quiet quiet, const tool::Facts &facts)
{
    const double part = quiet.deadband_of_range;
    if (facts.range && part > 0)
        quiet.deadband = std::max(quiet.deadband,
                                  part * facts.range->value.most - part * facts.range->value.least);
    return quiet;
}

Gate::Verdict Gate::judge(const Quiet &quiet, const Sample &sample, Clock::time_point now) const
{
    if (!sent_at_)
        return Verdict::send;
    if (is_noise(quiet, sample))
        return Verdict::skip;
    return now < due(quiet) ? Verdict::later : Verdict::send;
}

void Gate::sent(const Sample &sample, Clock::time_point now)
{
    sent_at_ = now;
    type_ = sample.type;
    quality_ = sample.quality;
    value_ = sample.value;
}

bool Gate::is_noise(const Quiet &quiet, const Sample &sample) const
{
    if (sample.type != type_ || sample.quality != quality_)
        return false;
    if (sample.value == value_)
        return quiet.only_changes || quiet.deadband > 0 || quiet.relative_deadband > 0;
    if (!tool::is_number_type(type_))
        return false;
    const double last = tool::as_double(type_, value_);
    const double step = std::abs(tool::as_double(type_, sample.value) - last);
    return step < quiet.deadband || step < quiet.relative_deadband * std::abs(last);
}

bool TokenBucket::may_pass(Clock::time_point now)
{
    if (rate_ <= 0)
        return true;
    if (!filled_at_)
        tokens_ = room_;
    else
        tokens_ += rate_ * std::chrono::duration<double>(now - *filled_at_).count();
    tokens_ = std::min(tokens_, room_);
    filled_at_ = now;
    return tokens_ >= 1;
}

void TokenBucket::pass()
{
    tokens_ -= 1;
}

} // namespace kp::mqtt
