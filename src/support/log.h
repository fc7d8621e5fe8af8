// The one log statement of the library. A message goes to standard error when the process's user
// level lets it through; the test comes before the arguments are evaluated and costs one load and
// one comparison. The text ends in its own line break.
#pragma once

#include "kp.h"
#include "layout/field.h"

namespace kp {

// The place that a log line says it comes from. A helper that has it as its last parameter, with
// current() as the default, logs under its caller's name.
struct LogSite {
    const char *function;
    int line;

    static constexpr LogSite current(const char *function = __builtin_FUNCTION(),
                                     int line = __builtin_LINE())
    {
        return {function, line};
    }
};

// The process-wide threshold. Any thread reads it, kp_xlog_set_user_level() writes it.
extern uint32_t user_level;

inline bool is_logged(uint32_t level)
{
    return load_relaxed(user_level) <= level;
}

__attribute__((format(printf, 3, 4), cold)) void write_log(uint32_t level, LogSite site,
                                                           const char *format, ...);

// Writes a text to standard error as it stands, without level, colour or prefix.
void write_plain(const char *text);

} // namespace kp

#define KP_LOG_AT(level, site, ...)                                                                \
    do {                                                                                           \
        if (kp::is_logged(level))                                                                  \
            kp::write_log(level, site, __VA_ARGS__);                                               \
    } while (false)

#define KP_LOG(level, ...) KP_LOG_AT(level, (kp::LogSite{__func__, __LINE__}), __VA_ARGS__)

namespace kp {

// Logs a text at ERROR. It stands in a function of its own, so that a guard that passes costs
// little.
[[gnu::cold, gnu::noinline]] void log_missing(const char *text, const char *function, int line);

// The guard of a required pointer: says whether it is null, and if so logs `text` at ERROR under
// the caller's name. Takes the parts of a LogSite, since a whole one would be filled before the
// test.
[[gnu::always_inline]] inline bool is_null(const void *pointer, const char *text,
                                           const char *function = __builtin_FUNCTION(),
                                           int line = __builtin_LINE())
{
    if (!pointer) [[unlikely]]
        log_missing(text, function, line);
    return !pointer;
}

} // namespace kp

#define KP_TRACE(...) KP_LOG(KP_LEVEL_TRACE, __VA_ARGS__)
#define KP_DEBUG(...) KP_LOG(KP_LEVEL_DEBUG, __VA_ARGS__)
#define KP_INFO(...) KP_LOG(KP_LEVEL_INFO, __VA_ARGS__)
#define KP_WARN(...) KP_LOG(KP_LEVEL_WARN, __VA_ARGS__)
#define KP_ERROR(...) KP_LOG(KP_LEVEL_ERROR, __VA_ARGS__)
#define KP_FATAL(...) KP_LOG(KP_LEVEL_FATAL, __VA_ARGS__)
