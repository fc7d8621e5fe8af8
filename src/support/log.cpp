// Levels and the writing of log lines. A line is five separate stream operations with no lock
// around them; standard error is flushed after each line.
#include "support/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kp {

uint32_t user_level = KP_LEVEL_WARN;

namespace {

struct Level {
    const char *name;
    const char *colour;
};

// Deliberate: FATAL shares the red of ERROR, so the two differ by their names alone.
constexpr std::array<Level, 8> kLevels{{{"ALL", ""},
                                        {"TRACE", "\033[97m"},
                                        {"DEBUG", "\033[92m"},
                                        {"INFO", "\033[96m"},
                                        {"WARN", "\033[93m"},
                                        {"ERROR", "\033[91m"},
                                        {"FATAL", "\033[91m"},
                                        {"OFF", ""}}};
constexpr const char *kReset = "\033[0m";

} // namespace

void write_log(uint32_t level, LogSite site, const char *format, ...)
{
    (void)std::fputs(kLevels[level].colour, stderr);
    (void)std::fprintf(stderr, "%s: %s(%d): ", kLevels[level].name, site.function, site.line);
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    (void)std::fputs(kReset, stderr);
    (void)std::fflush(stderr);
}

void log_missing(const char *text, const char *function, int line)
{
    KP_LOG_AT(KP_LEVEL_ERROR, (LogSite{function, line}), "%s", text);
}

void write_plain(const char *text)
{
    (void)std::fputs(text, stderr);
}

} // namespace kp

using namespace kp;

void kp_xlog_set_user_level(uint32_t level)
{
    store_relaxed(user_level, level);
}

uint32_t kp_xlog_get_user_level(void)
{
    return load_relaxed(user_level);
}

uint32_t kp_xlog_get_level_by_str(const char *str)
{
    if (!str)
        return kp_xlog_get_user_level();
    for (uint32_t level = 0; level < kLevels.size(); ++level) {
        const char *name = kLevels[level].name;
        if (std::strncmp(str, name, std::strlen(name)) == 0)
            return level;
    }
    return kp_xlog_get_user_level();
}

const char *kp_xlog_get_level_str(uint32_t level)
{
    return level < kLevels.size() ? kLevels[level].name : "";
}
