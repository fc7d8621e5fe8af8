#include "log.h"

#include <atomic>
#include <cstdio>

namespace kp::mqtt {

namespace {

std::atomic<bool> debug_too = false;
std::atomic<bool> for_journal = false;

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

bool OncePerText::is_new(const std::string &text)
{
    if (seen_.size() >= kMostTexts)
        return false;
    const bool added = seen_.insert(text).second;
    if (added && seen_.size() == kMostTexts)
        log(Level::warning, "further messages of this kind are only counted");
    return added;
}

} // namespace kp::mqtt
