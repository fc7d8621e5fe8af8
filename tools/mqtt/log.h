// The bridge's own messages: one line each on standard error, with the level first, as journald
// understands it. Names from outside are made printable by the caller.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>

namespace kp::mqtt {

enum class Level { error = 3, warning = 4, info = 6, debug = 7 };

// Debug lines are printed only after this was called.
void log_debug_too();

// With the journal's numbers ("<4>text") instead of words, for a service.
void log_for_journal();

void log(Level level, const std::string &text);

// Lets each text pass once, and no more than a bounded number of texts, so that a flood of bad
// messages fills no log. Counters tell how many there were.
class OncePerText {
  public:
    bool is_new(const std::string &text);

  private:
    static constexpr size_t kMostTexts = 1000;
    std::unordered_set<std::string> seen_;
};

} // namespace kp::mqtt
