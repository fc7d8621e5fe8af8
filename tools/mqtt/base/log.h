// The bridge's own messages: one line each on standard error, with the level first, as journald
// understands it. Names from outside are made printable by the caller.
#pragma once

#include "base/clock.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>

namespace kp::mqtt {

enum class Level { error = 3, warning = 4, info = 6, debug = 7 };

// Debug lines are printed only after this was called.
void log_debug_too();

// With the journal's numbers ("<4>text") instead of words, for a service.
void log_for_journal();

void log(Level level, const std::string &text);

// What a line that somebody else can cause is about. Each has a share of its own in the log.
enum class About { incoming, outgoing, reading, writing };

// Lets a number of lines pass in each minute, and no text twice in it. So a flood of bad messages
// does not fill the log, but always leaves a line there. The lines that are left out are counted.
class LineBudget {
  public:
    static constexpr unsigned kMostLines = 10;
    static constexpr std::chrono::minutes kTime{1};

    bool may_pass(const std::string &text, Clock::time_point now);

    // How many lines were left out in the minute that has ended; 0 while one goes on.
    uint64_t take_left_out(Clock::time_point now);

  private:
    std::optional<Clock::time_point> begin_;
    std::unordered_set<std::string> seen_;
    uint64_t left_out_ = 0;
};

// Logs a warning as far as the budget allows. Any thread may call it.
void log_bounded(About about, const std::string &text);

// Says how many lines were left out. To be called now and then.
void log_what_was_left_out(Clock::time_point now);

} // namespace kp::mqtt
