#include "base/log.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <utility>

namespace kp::mqtt {

namespace {

std::atomic<bool> debug_too = false;
std::atomic<bool> for_journal = false;

struct Budgets {
    std::mutex mutex;
    std::array<LineBudget, 4> of; // by About
};
Budgets budgets;

const char *word(Level level)
{
    switch (level) {
    case Level::error:
        return "error";
    case Level::warning:
        return "warning";
    case Level::info:
        return "info";
    case Level::debug:
        break;
    }
    return "debug";
}

} // namespace

void log_debug_too()
{
    debug_too = true;
}

void log_for_journal()
{
    for_journal = true;
}

void log(Level level, const std::string &text)
{
    if (level == Level::debug && !debug_too)
        return;
    const std::string start = for_journal ? "<" + std::to_string(static_cast<int>(level)) + ">"
                                          : std::string("kp-mqtt: ") + word(level) + ": ";
    (void)std::fputs((start + text + '\n').c_str(), stderr);
}

bool LineBudget::may_pass(const std::string &text, Clock::time_point now)
{
    if (!begin_)
        begin_ = now;
    const bool passes = seen_.size() < kMostLines && seen_.insert(text).second;
    left_out_ += !passes;
    return passes;
}

uint64_t LineBudget::take_left_out(Clock::time_point now)
{
    if (!begin_ || now < *begin_ + kTime)
        return 0;
    begin_.reset();
    seen_.clear();
    return std::exchange(left_out_, 0);
}

void log_bounded(About about, const std::string &text)
{
    const std::lock_guard lock(budgets.mutex);
    if (budgets.of[static_cast<size_t>(about)].may_pass(text, Clock::now()))
        log(Level::warning, text);
}

void log_what_was_left_out(Clock::time_point now)
{
    constexpr std::array names = {"messages from the broker that are refused",
                                  "messages that the broker refuses", "topics that cannot be read",
                                  "tags that cannot be written"};
    const std::lock_guard lock(budgets.mutex);
    for (size_t at = 0; at < names.size(); ++at)
        if (const uint64_t count = budgets.of[at].take_left_out(now))
            log(Level::warning, "of " + std::string(names[at]) + ", " + std::to_string(count) +
                                    " more lines were left out");
}

} // namespace kp::mqtt
