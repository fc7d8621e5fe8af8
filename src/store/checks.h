// The guards of the operations on an open segment, shared by the files that read and write values.
// Each logs under its caller's name.
#pragma once

#include "store/segment.h"

namespace kp {

// Says why a handle has no declared segment. The two families of callers word a missing mapping
// differently.
[[gnu::cold]] inline void log_undeclared(const kp_shm_t *shm, const char *no_memory, LogSite site)
{
    if (!shm)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "shm is null\n");
    else if (!shm->mem)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "%s", no_memory);
    else
        KP_LOG_AT(KP_LEVEL_DEBUG, site, "%s", kUndeclared);
}

inline Segment *segment_for_value(const kp_shm_t *shm, LogSite site = LogSite::current())
{
    Segment *segment = declared_segment(shm);
    if (!segment) [[unlikely]]
        log_undeclared(shm, "shm memory is not exist\n", site);
    return segment;
}

inline Segment *segment_for_query(const kp_shm_t *shm, LogSite site = LogSite::current())
{
    Segment *segment = declared_segment(shm);
    if (!segment) [[unlikely]]
        log_undeclared(shm, "shm memory is null\n", site);
    return segment;
}

// Whether there is a value, and a buffer of this size holds it whole.
inline bool value_fits(const Segment &segment, uint32_t buffer_size,
                       LogSite site = LogSite::current())
{
    const uint32_t size = load_relaxed(segment.written_value_size);
    if (size == 0) {
        KP_LOG_AT(KP_LEVEL_WARN, site,
                  "written_value_size is 0, cannot read anything. please write first\n");
        return false;
    }
    if (size > buffer_size) {
        KP_LOG_AT(KP_LEVEL_WARN, site, "value_buffer_size(%d) < written_value_size(%d)\n",
                  static_cast<int32_t>(buffer_size), static_cast<int32_t>(size));
        return false;
    }
    return true;
}

// Bounds of the wait for a writer that is copying a value in.
constexpr int kWriterTries = 10;
constexpr useconds_t kWriterPauseUs = 10; // a write lasts less than a microsecond

} // namespace kp
