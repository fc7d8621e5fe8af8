#include "topics/lost_providers.h"

#include "base/log.h"
#include "common/clock.h"

#include <algorithm>

namespace kp::mqtt {

namespace {

// The least time between two looks.
constexpr milliseconds kPause{1000};
// A look waits for so many times the processor time that the last one took. By the clock on the
// wall a machine that is busy with other things would hear of a killed provider minutes later.
constexpr int kShare = 20;
// After a process has ended, a second look follows, for who was opening or closing just then.
constexpr milliseconds kSecondLook{5000};

} // namespace

LostProviders::LostProviders(TopicTable &topics, bool trust_visible)
    : topics_(topics), holders_(trust_visible)
{
    if (holders_.sight() == Sight::partial)
        log(Level::info, "not every process can be looked into, so a provider that is killed will "
                         "not be told from a silent one; see trust-visible in kp-mqtt.conf(5)");
}

void LostProviders::hear_ends(Clock::time_point now)
{
    if (!holders_.some_ended())
        return;
    wants_look_ = true;
    second_look_ = now + kSecondLook;
}

void LostProviders::look(Clock::time_point now)
{
    const bool is_second = second_look_ && now >= *second_look_;
    wants_look_ = topics_.counts_changed() || wants_look_ || is_second;
    if (!wants_look_ || now < next_look_ || holders_.sight() == Sight::partial)
        return;
    if (is_second)
        second_look_.reset();
    wants_look_ = false;
    const uint64_t start = tool::clock_us(CLOCK_THREAD_CPUTIME_ID);
    const unsigned handles = topics_.take_census(holders_.take(), now);
    log(Level::debug, "the topics have " + std::to_string(handles) + " open handles");
    const std::chrono::microseconds cost(tool::clock_us(CLOCK_THREAD_CPUTIME_ID) - start);
    next_look_ = now + std::max(kPause, std::chrono::ceil<milliseconds>(kShare * cost));
}

std::optional<Clock::time_point> LostProviders::wants_scan_at() const
{
    if (!wants_look_ || holders_.sight() == Sight::partial)
        return {};
    return next_look_;
}

} // namespace kp::mqtt
