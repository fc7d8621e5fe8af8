#include "common/values/time_text.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace kp::tool {

namespace {

// Date and time of day with microseconds; nothing for a year that no calendar holds.
std::string broken_down(const std::tm *parts, uint64_t us, char separator, const char *zone)
{
    if (!parts)
        return std::to_string(us);
    std::array<char, 96> out{};
    (void)std::snprintf(out.data(), out.size(), "%04d-%02d-%02d%c%02d:%02d:%02d.%06u%s",
                        parts->tm_year + 1900, parts->tm_mon + 1, parts->tm_mday, separator,
                        parts->tm_hour, parts->tm_min, parts->tm_sec,
                        static_cast<unsigned>(us % kUsPerSecond), zone);
    return out.data();
}

time_t seconds_of(uint64_t us)
{
    return static_cast<time_t>(us / kUsPerSecond);
}

std::string with_unit(double amount, const char *unit)
{
    std::array<char, 32> out{};
    const int decimals = amount < 9.995 ? 2 : amount < 99.95 ? 1 : 0;
    (void)std::snprintf(out.data(), out.size(), "%.*f%s", decimals, amount, unit);
    return out.data();
}

} // namespace

std::string iso_utc(uint64_t us)
{
    const time_t seconds = seconds_of(us);
    std::tm parts{};
    return broken_down(gmtime_r(&seconds, &parts), us, 'T', "Z");
}

std::string local_time(uint64_t us)
{
    const time_t seconds = seconds_of(us);
    std::tm parts{};
    return broken_down(localtime_r(&seconds, &parts), us, ' ', "");
}

std::string time_text(uint64_t us, TimeStyle style, uint64_t now)
{
    switch (style) {
    case TimeStyle::utc:
        return iso_utc(us);
    case TimeStyle::epoch:
        return std::to_string(us);
    case TimeStyle::relative:
        return age_text(us, now);
    default:
        return local_time(us);
    }
}

std::string age_text(uint64_t us, uint64_t now)
{
    return us > now ? "future" : duration_text(now - us);
}

std::string duration_text(uint64_t us)
{
    const auto amount = static_cast<double>(us);
    if (us < 1000)
        return std::to_string(us) + "us";
    if (us < kUsPerSecond)
        return with_unit(amount / 1e3, "ms");
    if (us < 120 * kUsPerSecond)
        return with_unit(amount / 1e6, "s");
    if (us < 7200 * kUsPerSecond)
        return with_unit(amount / 6e7, "m");
    if (us < 48ULL * 3600 * kUsPerSecond)
        return with_unit(amount / 3.6e9, "h");
    return with_unit(amount / 8.64e10, "d");
}

} // namespace kp::tool
